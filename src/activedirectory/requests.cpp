#include <utility>

#include "tesauth/active_directory_store.h"

namespace tessary::authentication {

using Guard = std::lock_guard<std::mutex>;

ADCache& ActiveDirectoryStore::_adCache = *new ADCache;
std::unordered_map<std::string, std::shared_ptr<RequestState>>&
    ActiveDirectoryStore::_asyncRequests =
        *new std::unordered_map<std::string, std::shared_ptr<RequestState>>;
std::mutex& ActiveDirectoryStore::_lock = *new std::mutex;

std::shared_ptr<RequestState>
ActiveDirectoryStore::StartOrAttachToRequest(const std::string& key,
                                             std::function<void(const std::string&)> work) {
    const Guard guard(_lock);
    const auto [entry, isNew] = _asyncRequests.try_emplace(key, std::make_shared<RequestState>());
    const std::shared_ptr<RequestState> state = entry->second;
    if (isNew) {
        try {
            TesauthThreadUtil::ScheduleFunctor([key, work = std::move(work)] { work(key); });
        } catch (...) {
            _asyncRequests.erase(key);
            throw;
        }
    }
    return state;
}

void ActiveDirectoryStore::FinishRequest(const std::string& key,
                                         std::unique_ptr<Exception>&& error) {
    const Guard guard(_lock);
    const auto entry = _asyncRequests.find(key);
    if (entry != _asyncRequests.end()) {
        entry->second->Done(std::move(error));
        _asyncRequests.erase(entry);
    }
}

} // namespace tessary::authentication
