// The running bootloader's version: major, minor and build text, printed as "%i.%i.%s".
//
// These are build settings: a build of another version puts its own <boot_version.h> first on the include path.
#pragma once

inline constexpr int kBootVersionMajor = 1;
inline constexpr int kBootVersionMinor = 9;
inline constexpr const char *kBootVersionBuild = "0";
