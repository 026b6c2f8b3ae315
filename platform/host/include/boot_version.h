// The running bootloader's version in a host process: one native build stands for every version, since versions differ
// in nothing else. The native processor sets it before each start.
#pragma once

extern "C" {
extern int host_version_major;
extern int host_version_minor;
extern const char *host_version_build;
}

#define kBootVersionMajor host_version_major
#define kBootVersionMinor host_version_minor
#define kBootVersionBuild host_version_build
