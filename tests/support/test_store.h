#pragma once

#include <chrono>
#include <optional>
#include <thread>

#include "tesauth/active_directory_store.h"

namespace scripted {

/// An Active Directory store whose shared state a test can see.
class TestStore : public tessary::authentication::ActiveDirectoryStore {
public:
    using Base = tessary::authentication::ActiveDirectoryStore;
    using Base::provider;
    using Base::timeoutSeconds;

    explicit TestStore(int timeout) : Base(timeout) {}

    static tessary::authentication::ADCache& Cache() { return _adCache; }
    static std::mutex& Lock() { return _lock; }

    static bool IsInFlight(const std::string& key) {
        const std::lock_guard<std::mutex> guard(_lock);
        return _asyncRequests.count(key) != 0;
    }
    static std::size_t InFlight() {
        const std::lock_guard<std::mutex> guard(_lock);
        return _asyncRequests.size();
    }

    /// Waits, at most ten seconds, until nothing is in flight.
    static bool WaitUntilIdle() {
        for (int i = 0; i < 10000 && InFlight() != 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return InFlight() == 0;
    }

    /// The process-wide cache as it is at the start of a process.
    static void ResetCache() {
        using namespace tessary::authentication;
        _adCache.SetConfiguration(ActiveDirectoryStoreConfiguration());
        _adCache.SetTrustedDomains({});
        _adCache.SetDomainTrustState(TrustStateUnknown);
        _adCache.SetPcscdSvcPolicyOn(false);
        _adCache.SetSmartCardEnabledServices({});
        _adCache.IncreaseTrustRelationshipsGenNo();
        _adCache.CleanupOldTrustRelationships();
    }
};

} // namespace scripted
