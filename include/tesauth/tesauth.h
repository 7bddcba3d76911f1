/// Everything that libtesauth exports.
#ifndef TESAUTH_TESAUTH_H
#define TESAUTH_TESAUTH_H

#include "tesauth/active_directory_store.h"
#include "tesauth/ad_cache.h"
#include "tesauth/apx_proxy.h"
#include "tesauth/atomic_file_stream.h"
#include "tesauth/config_store.h"
#include "tesauth/configuration.h"
#include "tesauth/exceptions.h"
#include "tesauth/no_remote_store.h"
#include "tesauth/provider.h"
#include "tesauth/store.h"
#include "tesauth/store_factory.h"
#include "tesauth/thread_util.h"

#endif
