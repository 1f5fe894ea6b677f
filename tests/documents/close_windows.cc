// Kept apart from the tests: Xlib's macros (None, Bool, Status) collide with gtest's names.
#include "documents/close_windows.h"

#include <X11/Xlib.h>

namespace corvane::documents {

int CloseTopLevelWindows(const std::string& display_name) {
  Display* display = XOpenDisplay(display_name.c_str());
  if (!display) return 0;
  Window root = DefaultRootWindow(display), parent = 0, *children = nullptr;
  unsigned int count = 0;
  int asked = 0;
  XQueryTree(display, root, &root, &parent, &children, &count);
  for (unsigned int i = 0; i < count; ++i) {
    XWindowAttributes attributes;
    if (!XGetWindowAttributes(display, children[i], &attributes) ||
        attributes.map_state != IsViewable) {
      continue;
    }
    // What a window manager's close button sends; GTK's windows all take it.
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = children[i];
    event.xclient.message_type = XInternAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(display, "WM_DELETE_WINDOW", False));
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(display, children[i], False, NoEventMask, &event);
    ++asked;
  }
  if (children) XFree(children);
  XCloseDisplay(display);
  return asked;
}

}  // namespace corvane::documents
