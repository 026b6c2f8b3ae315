// What a debugger's session works on: registers that it may set, and a page of memory.
#pragma once

#include "machine/gdb_protocol.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace fixture {

class SmallTarget : public GdbTarget {
public:
    std::array<std::uint32_t, 17> registers() override { return registers_; }
    void set_register(unsigned number, std::uint32_t value) override { registers_.at(number) = value; }
    std::optional<std::string> read(std::uint32_t address, std::uint32_t bytes) override {
        if (address < kBase || address - kBase > memory_.size() || memory_.size() - (address - kBase) < bytes)
            return std::nullopt;
        return memory_.substr(address - kBase, bytes);
    }
    bool write(std::uint32_t address, std::string_view bytes) override {
        if (!read(address, static_cast<std::uint32_t>(bytes.size()))) return false;
        memory_.replace(address - kBase, bytes.size(), bytes);
        return true;
    }
    std::string monitor(const std::string &command) override { return "heard " + command; }
    std::string memory_map() override { return "<memory-map/>"; }
    std::string program() override { return "/a"; }
    std::optional<std::string> file(const std::string &path) override {
        return path == program() ? std::optional(memory_) : std::nullopt;
    }

private:
    static constexpr std::uint32_t kBase = 0x20000000;
    std::array<std::uint32_t, 17> registers_{};
    std::string memory_ = std::string(4096, '\x5A');
};

} // namespace fixture
