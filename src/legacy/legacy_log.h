// The log domain of the legacy migration: G_MESSAGES_DEBUG=corvane-legacy shows its messages.
#pragma once

namespace corvane::legacy {

inline constexpr const char* kLogDomain = "corvane-legacy";

}  // namespace corvane::legacy
