#define GREETING "Hello from the demo rescue application.\n"
#include "../demo-application/hello.S"
