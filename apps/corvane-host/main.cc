// corvane-host: the native Linux host of Corvane. Everything lives in the host library, so the
// tests can drive the same code.
#include "host/host_main.h"

int main(int argc, char** argv) { return corvane::host::HostMain(argc, argv); }
