// The file server's working memory stands alone, so that a linker script can name this file's zero-initialised data.
#include "PJFS.h"

alignas(8) constinit std::uint8_t pjfs_working_memory[kFileServerMemorySize] = {};
