// The file system that the modules reach natively: whatever offers these four calls.
//
// A failed call gives a negative errno value; handles are above 0.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace fixture {

class FileSystem {
public:
    virtual ~FileSystem() = default;
    virtual int open(std::string_view path, bool for_writing) = 0;
    virtual long read(int handle, std::span<std::uint8_t> bytes) = 0;
    virtual long size(int handle) = 0;
    virtual int close(int handle) = 0;
};

} // namespace fixture
