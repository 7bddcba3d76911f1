// Reading and writing PAM policies and name-service-switch configurations of any length, beside
// another library that reads, changes and writes such files (libaugeas, in memory as well), and
// beside the C library's own reader of the services of one database.

#include <benchmark/benchmark.h>

#include <augeas.h>
#include <memory>
#include <nss.h>
#include <sstream>
#include <stdexcept>
#include <string>

#include "systemconfiguration/nss.h"
#include "systemconfiguration/pam.h"

namespace {

using SystemConfiguration::NSSConfiguration;
using SystemConfiguration::PAMPolicy;

constexpr int shortest = 10;
constexpr int longest = 100000;
constexpr int compared = 10000;

std::string PolicyText(std::int64_t entries) {
    static constexpr const char* lines[] = {
        "auth\t[success=2 default=ignore]\tpam_unix.so nullok\n",
        "account\trequired\tpam_permit.so\n",
        "password\trequisite\tpam_pwquality.so retry=3 minlen=12\n",
        "session\toptional\tpam_umask.so umask=0077\n",
    };
    std::string text = "#%PAM-1.0\n\n";
    for (std::int64_t i = 0; i < entries; ++i)
        text += lines[i % 4];
    return text;
}

std::string Services(std::int64_t number) {
    std::string text;
    for (std::int64_t i = 0; i < number; ++i)
        text += " service" + std::to_string(i);
    return text;
}

/// So many services of one database.
std::string SwitchText(std::int64_t services) {
    return "passwd:" + Services(services) + "\nhosts: files dns\n";
}

template <typename Value>
std::string Rewritten(const std::string& text, Value value) {
    std::istringstream in(text);
    in >> value;
    std::ostringstream out;
    out << value;
    return out.str();
}

void Policy(benchmark::State& state) {
    const std::string text = PolicyText(state.range(0));
    for (auto step : state)
        benchmark::DoNotOptimize(Rewritten(text, PAMPolicy("bench")));
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Policy)
    ->RangeMultiplier(10)
    ->Range(shortest, longest)
    ->Complexity(benchmark::oN)
    ->Unit(benchmark::kMicrosecond);

void Switch(benchmark::State& state) {
    const std::string text = SwitchText(state.range(0));
    for (auto step : state)
        benchmark::DoNotOptimize(Rewritten(text, NSSConfiguration()));
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Switch)
    ->RangeMultiplier(10)
    ->Range(shortest, longest)
    ->Complexity(benchmark::oN)
    ->Unit(benchmark::kMicrosecond);

/// Only reads, and only what stands behind the database's name.
void SwitchReadByTheCLibrary(benchmark::State& state) {
    const std::string text = Services(state.range(0));
    for (auto step : state)
        if (__nss_configure_lookup("passwd", text.c_str()) != 0)
            throw std::runtime_error("the C library does not take it");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(SwitchReadByTheCLibrary)
    ->Arg(shortest)
    ->Arg(1000)
    ->Arg(compared)
    ->Unit(benchmark::kMicrosecond);

void SwitchRead(benchmark::State& state) {
    const std::string text = SwitchText(state.range(0));
    for (auto step : state) {
        std::istringstream in(text);
        NSSConfiguration configuration;
        in >> configuration;
        benchmark::DoNotOptimize(configuration);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(SwitchRead)->Arg(shortest)->Arg(1000)->Arg(compared)->Unit(benchmark::kMicrosecond);

struct AugeasCloser {
    void operator()(augeas* handle) const { aug_close(handle); }
};

/// The same with the other library; its start, which loads how the files are written, is not timed.
void WithAugeas(benchmark::State& state, const char* lens, const std::string& text) {
    const std::unique_ptr<augeas, AugeasCloser> handle(aug_init(nullptr, nullptr, AUG_NO_LOAD));
    if (!handle)
        throw std::runtime_error("libaugeas does not start");
    for (auto step : state) {
        if (aug_set(handle.get(), "/in", text.c_str()) != 0 ||
            aug_text_store(handle.get(), lens, "/in", "/tree") != 0 ||
            aug_text_retrieve(handle.get(), lens, "/in", "/tree", "/out") != 0)
            throw std::runtime_error(std::string("libaugeas cannot do it: ") +
                                     aug_error_message(handle.get()));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void PolicyWithAugeas(benchmark::State& state) {
    WithAugeas(state, "Pam.lns", PolicyText(state.range(0)));
}
BENCHMARK(PolicyWithAugeas)->Arg(1000)->Arg(compared)->Unit(benchmark::kMicrosecond);

void SwitchWithAugeas(benchmark::State& state) {
    WithAugeas(state, "Nsswitch.lns", SwitchText(state.range(0)));
}
BENCHMARK(SwitchWithAugeas)->Arg(1000)->Arg(compared)->Unit(benchmark::kMicrosecond);

} // namespace
