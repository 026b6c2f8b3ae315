// Where things lie in the board's memory.
#pragma once

#include <cstdint>

inline constexpr std::uint32_t kSdramBase = 0x20000000;
inline constexpr std::uint32_t kSdramSize = 0x04000000; // 64 MiB

// The load buffer: files and images are read here for checking, copying and launching.
inline constexpr std::uint32_t kLoadBufferBase = 0x23000000;
inline constexpr std::uint32_t kLoadBufferSize = 0x01000000; // 16 MiB, up to the end of SDRAM

// The same bytes as an object; the linker sets its address, so it starts on a word.
extern "C" std::uint8_t image_load_buf[];

// The launch marker lies in the load buffer's last 256 bytes; the first-stage loader looks for its text there.
inline constexpr std::uint32_t kLaunchMarkerBase = 0x23FFFF00;
inline constexpr std::uint32_t kLaunchMarkerSize = 0x100;
static_assert(kLaunchMarkerBase + kLaunchMarkerSize == kLoadBufferBase + kLoadBufferSize);
static_assert(kLoadBufferBase + kLoadBufferSize == kSdramBase + kSdramSize);

// The heap that malloc gives out. The bootloader needs little of it: a descriptor's text and tree, a page buffer.
inline constexpr std::uint32_t kHeapSize = 0x00400000;

// The video region: 0x27000 bytes in the section .mr_rwec__videobuffer, mapped uncached by the platform. The linker
// gives its start; the LCD controller scans its first 320 x 240 x 2 bytes.
inline constexpr std::uint32_t kVideoRegionSize = 0x27000;
extern "C" std::uint8_t __ghsbegin_mr_rwec__videobuffer[];
