#include "platform/host/native_processor.h"

#include "platform/host/host_kernel.h"

#include <array>
#include <cstring>
#include <dlfcn.h>
#include <fmt/format.h>
#include <stdexcept>
#include <vector>

extern "C" {
// The modules' data and zero-initialised data, gathered in sections of their own when their objects are joined.
extern std::uint8_t __start_boot_data[] __attribute__((weak));
extern std::uint8_t __stop_boot_data[] __attribute__((weak));
extern std::uint8_t __start_boot_bss[] __attribute__((weak));
extern std::uint8_t __stop_boot_bss[] __attribute__((weak));

// Some of the modules' leaks are by design; their heap is emptied at every start. The emulator allocates at every
// store, and keeping all callers of each allocation took a fifth of an emulated boot.
const char *__asan_default_options(void) { return "detect_leaks=0:malloc_context_size=4"; }

int host_version_major = 1;
int host_version_minor = 9;
const char *host_version_build = "0";
}

namespace fixture {

namespace {

struct StageEnded {
    StageResult result;
};

// Plain copies that the address sanitizer does not look at: the sections hold its poisoned gaps between objects too.
// Volatile, or the compiler would call a library routine that the sanitizer does look at. In words as far as they go:
// the sections are longer than a boot is to the modules themselves.
using Word __attribute__((may_alias, aligned(1))) = std::uint64_t;
__attribute__((no_sanitize("address", "undefined"))) void RawCopy(std::uint8_t *to, const std::uint8_t *from,
                                                                  std::size_t bytes) {
    std::size_t i = 0;
    for (; i + sizeof(Word) <= bytes; i += sizeof(Word))
        *reinterpret_cast<volatile Word *>(to + i) = from ? *reinterpret_cast<const Word *>(from + i) : 0;
    for (; i < bytes; ++i) *static_cast<volatile std::uint8_t *>(to + i) = from ? from[i] : std::uint8_t{0};
}

void ReloadModuleData() {
    static const std::vector<std::uint8_t> initial = [] {
        std::vector<std::uint8_t> data(static_cast<std::size_t>(__stop_boot_data - __start_boot_data));
        RawCopy(data.data(), __start_boot_data, data.size());
        return data;
    }();
    RawCopy(__start_boot_data, initial.data(), initial.size());
    RawCopy(__start_boot_bss, nullptr, static_cast<std::size_t>(__stop_boot_bss - __start_boot_bss));
}

std::string g_version_build;

} // namespace

NativeProcessor::NativeProcessor(Wiring wiring) {
    HostKernel &kernel = host_kernel();
    kernel = HostKernel{};
    kernel.clock = &wiring.clock;
    kernel.bus = &wiring.bus;
    kernel.volume = &wiring.volume;
    kernel.cache = &wiring.cache;
    kernel.master_clock_hz = std::move(wiring.master_clock_hz);
    kernel.file_server_fails = wiring.file_server_fails;
    kernel.stop = [this](StageResult result) { stop(std::move(result)); };
}

NativeProcessor::~NativeProcessor() {
    ReleaseModuleHeap();
    host_kernel() = HostKernel{};
}

void NativeProcessor::stop(StageResult result) {
    if (host_kernel().running) throw StageEnded{std::move(result)};
}

namespace {

template <typename Body> StageResult RunStage(Body body) {
    struct Running {
        Running() { host_kernel().running = true; }
        ~Running() { host_kernel().running = false; }
    } running;
    try {
        return body();
    } catch (const StageEnded &ended) {
        return ended.result;
    }
}

} // namespace

StageResult NativeProcessor::start(const BootVersion &version) {
    ReleaseModuleHeap();
    ReloadModuleData();
    g_version_build = version.build;
    host_version_major = version.major;
    host_version_minor = version.minor;
    host_version_build = g_version_build.c_str();
    return RunStage([] {
        host_platform_start();
        return StageResult{StageEnd::stopped_at, 0, "main"};
    });
}

StageResult NativeProcessor::run(const BootVersion &version) {
    StageResult started = start(version);
    if (started.end != StageEnd::stopped_at) return started;
    return RunStage([] { return StageResult{StageEnd::exited, bootloader_main(), ""}; });
}

StageResult NativeProcessor::call(const char *routine, std::span<const std::uint32_t> arguments,
                                  std::uint32_t &result) {
    using Routine = std::uintptr_t (*)(std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                       std::uintptr_t);
    const auto code = reinterpret_cast<Routine>(object(routine));
    if (!code) throw std::runtime_error(fmt::format("no routine {} among the modules", routine));
    std::array<std::uintptr_t, 6> a{};
    for (std::size_t i = 0; i < arguments.size() && i < a.size(); ++i) a[i] = arguments[i];
    return RunStage([&] {
        result = static_cast<std::uint32_t>(code(a[0], a[1], a[2], a[3], a[4], a[5]));
        return StageResult{StageEnd::stopped_at, 0, routine};
    });
}

void *NativeProcessor::object(const char *name) { return dlsym(RTLD_DEFAULT, name); }

} // namespace fixture
