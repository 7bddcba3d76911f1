// What a query costs beyond the provider's own time, beside the least that it could cost: one
// thread start and one wake-up. Changes the host's settings, so it runs on private hosts only.
#include <benchmark/benchmark.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <pthread.h>

#include "tesauth/active_directory_store.h"

namespace {

struct Completion {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    bool done = false;
};

void* Complete(void* argument) {
    auto& completion = *static_cast<Completion*>(argument);
    pthread_mutex_lock(&completion.mutex);
    completion.done = true;
    pthread_cond_signal(&completion.condition);
    pthread_mutex_unlock(&completion.mutex);
    return nullptr;
}

void ThreadStartAndWakeUp(benchmark::State& state) {
    for (auto _ : state) {
        Completion completion;
        pthread_t thread;
        if (pthread_create(&thread, nullptr, Complete, &completion) != 0) {
            state.SkipWithError("no thread");
            break;
        }
        pthread_detach(thread);
        pthread_mutex_lock(&completion.mutex);
        while (!completion.done) {
            pthread_cond_wait(&completion.condition, &completion.mutex);
        }
        pthread_mutex_unlock(&completion.mutex);
    }
}
BENCHMARK(ThreadStartAndWakeUp)->UseRealTime();

void GetTrustedDomains(benchmark::State& state) {
    const tessary::authentication::ActiveDirectoryStore store(60);
    for (auto _ : state) {
        benchmark::DoNotOptimize(store.GetTrustedDomains());
    }
}
BENCHMARK(GetTrustedDomains)->UseRealTime();

void InstallInstantProvider() {
    const std::filesystem::path plugins = "/usr/libexec/tesauth";
    std::filesystem::create_directories(plugins);
    std::filesystem::copy_file(INSTANT_PROVIDER, plugins / "libinstant.so",
                               std::filesystem::copy_options::overwrite_existing);
    std::ofstream("/etc/tessary/tesauth/provider.conf") << "provider = instant\n";
}

} // namespace

int main(int argc, char** argv) {
    if (!std::filesystem::exists("/run/private-host")) {
        std::cerr << "query_bench: this is no private host; run it with ./dev bench\n";
        return 1;
    }
    InstallInstantProvider();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
