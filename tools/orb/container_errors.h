// The container reader's short messages, said again for a person.
#pragma once

#include <string>

namespace orb {

// What was expected, what was found and what to do, with the message itself in brackets.
std::string explainContainerError(const std::string& message);

}  // namespace orb
