// The whole of corvane-host's main: options, information file, then the windowed application or
// the headless loop.
#pragma once

namespace corvane::host {

int HostMain(int argc, char** argv);

}  // namespace corvane::host
