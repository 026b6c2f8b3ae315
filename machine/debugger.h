// A debugger on the emulated board: GDB connects to a port of this machine alone.
//
//   Debugger debugger(machine, 1234, Debugger::StopOn::entry);      before the run
//   debugger.finished(machine.run());
//
// The run stands still while the debugger looks, so a stop costs neither virtual time nor instructions. The debugger
// outlives processor resets and the launch, and hands over the symbols of what runs then; if it goes away, the run goes
// on without it, and another one may come. Violations, hangs and faults stop the run as well as what was asked for.
#pragma once

#include "machine/gdb_protocol.h"
#include "machine/machine.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace fixture {

class Debugger : private ArmProbe, private GdbTarget {
public:
    // Where the run first waits for a debugger.
    enum class StopOn : std::uint8_t { entry, violation, hang, fault, reset };

    // Port 0: any that is free. Throws Refusal if the port cannot be had.
    Debugger(Machine &machine, std::uint16_t port, StopOn on);
    ~Debugger() override;
    Debugger(const Debugger &) = delete;
    Debugger &operator=(const Debugger &) = delete;

    std::uint16_t port() const { return port_; }
    // Tells the debugger, where there is one, that the program has ended.
    void finished(const RunReport &report);

    // Told what somebody at the terminal should know: where the run waits, that the debugger has gone.
    std::function<void(const std::string &)> notice;

private:
    void before_instruction(std::uint32_t pc) override;
    void before_access(std::uint32_t address, unsigned bytes, bool is_write) override;
    std::array<std::uint32_t, 17> registers() override;
    void set_register(unsigned number, std::uint32_t value) override;
    std::optional<std::string> read(std::uint32_t address, std::uint32_t bytes) override;
    bool write(std::uint32_t address, std::string_view bytes) override;
    std::string monitor(const std::string &command) override;
    std::string memory_map() override;
    std::string program() override;
    std::optional<std::string> file(const std::string &path) override;

    std::string show_time() const;
    std::string show_chips() const;
    std::string show_where() const;
    std::string cut_power(const std::string &moment);

    void trouble(Trouble trouble, const std::string &what);
    void stop_here(unsigned signal, const std::string &why, const std::string &explanation);
    void converse();
    void act(const GdbSession::Answer &answer);
    void accept_debugger(bool wait);
    void tell_of_program(std::uint32_t pc);
    void look_for_interrupt();
    std::optional<std::string> receive();
    void send(const std::string &data);
    void hang_up(const std::string &why);
    void say(const std::string &text) const;

    Machine &machine_;
    std::function<void(const BusAccess &)> looked_on_before_;
    GdbSession session_{*this};
    GdbPacketReader reader_;
    StopOn on_;
    std::uint16_t port_ = 0;
    int listener_ = -1;
    int peer_ = -1;
    const Firmware *told_of_ = nullptr; // the program whose symbols the debugger has
    bool talking_ = false;              // the processor stands still
    bool has_stopped_ = false;
    bool stepping_ = false;
    std::string last_sent_;
    std::uint32_t until_look_ = 0;
};

} // namespace fixture
