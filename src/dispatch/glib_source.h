// Owning a GSource that was attached to a context: taking it away again.
#pragma once

#include <glib.h>

namespace corvane::dispatch {

// Stops `source` from dispatching, drops our reference and clears the pointer; null is fine.
inline void DestroySource(GSource*& source) {
  if (source == nullptr) return;
  g_source_destroy(source);
  g_source_unref(source);
  source = nullptr;
}

}  // namespace corvane::dispatch
