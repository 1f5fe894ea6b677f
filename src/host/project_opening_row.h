// The document hand-off's place in the start-up table: the service, told of the application's
// launch, open and terminate happenings through the host's application delegates.
#pragma once

#include <memory>

namespace corvane::host {

class Registrar;

// Makes MacProjectOpening on the registrar's messenger, with the registrar's view as its window
// (held weakly), and adds it as an application delegate. The returned object keeps it alive.
std::shared_ptr<void> MakeMacProjectOpening(Registrar& registrar);

}  // namespace corvane::host
