// This machine's own processor on the virtual fixture: runs the bootloader's modules, compiled for this machine.
//
// Each start is a cold one: the modules' data, zero-initialised data and heap are as freshly loaded. The kernel's names
// that the modules call (open, printf, malloc, ...) are re-pointed to this platform when their objects are joined; the
// C library's own stay what they are. A stage ends by an exception that passes through the modules' frames.
//
//   NativeProcessor processor({clock, bus, volume, cache, master_clock_hz});
//   StageResult end = processor.run({1, 9, "0"});        one stage, from power-on to its end
//   processor.start({1, 9, "0"});                        the same up to the entry of main
//   processor.call("SDFlash_Init", {}, result);          then: one routine by name
#pragma once

#include "fixture/core/board_memory.h"
#include "fixture/core/bus.h"
#include "fixture/processors/processor.h"
#include "platform/host/file_system.h"

#include <span>
#include <string>

namespace fixture {

// Which build of the bootloader the native one stands for.
struct BootVersion {
    int major = 1;
    int minor = 9;
    std::string build = "0";
};

class NativeProcessor {
public:
    struct Wiring {
        Clock &clock;
        Bus &bus;
        FileSystem &volume;
        HandoverCache &cache;
        std::function<std::uint32_t()> master_clock_hz;
        bool file_server_fails = false; // the file server's start reports failure
    };
    // One at a time; everything wired outlives it.
    explicit NativeProcessor(Wiring wiring);
    ~NativeProcessor();
    NativeProcessor(const NativeProcessor &) = delete;
    NativeProcessor &operator=(const NativeProcessor &) = delete;

    StageResult run(const BootVersion &version);
    StageResult start(const BootVersion &version);
    // Pointers among the arguments are addresses in SDRAM or of this process; the result is what the routine returns.
    StageResult call(const char *routine, std::span<const std::uint32_t> arguments, std::uint32_t &result);
    // The address of one of the modules' objects, or null.
    static void *object(const char *name);

    // Ends the stage. Does not return when the modules are running.
    void stop(StageResult result);
};

} // namespace fixture
