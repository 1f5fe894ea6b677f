// Kept apart from the tests: Xlib's macros (None, Bool, Status) collide with gtest's names.
#include "documents/close_windows.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace corvane::documents {

// Asks every mapped window that takes WM_DELETE_WINDOW to close, as a window manager's close
// button does. Returns how many were asked.
int CloseTopLevelWindows(const std::string& display_name) {
  Display* display = XOpenDisplay(display_name.c_str());
  if (!display) return 0;
  const Atom protocols = XInternAtom(display, "WM_PROTOCOLS", False);
  const Atom delete_window = XInternAtom(display, "WM_DELETE_WINDOW", False);
  Window root = DefaultRootWindow(display);
  Window parent = 0;
  Window* children = nullptr;
  unsigned int count = 0;
  int asked = 0;
  XQueryTree(display, root, &root, &parent, &children, &count);
  for (unsigned int i = 0; i < count; ++i) {
    XWindowAttributes attributes;
    if (!XGetWindowAttributes(display, children[i], &attributes) ||
        attributes.map_state != IsViewable) {
      continue;
    }
    Atom* supported = nullptr;
    int n = 0;
    bool takes_delete = false;
    if (XGetWMProtocols(display, children[i], &supported, &n)) {
      for (int j = 0; j < n; ++j) takes_delete = takes_delete || supported[j] == delete_window;
      XFree(supported);
    }
    if (!takes_delete) continue;
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = children[i];
    event.xclient.message_type = protocols;
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(delete_window);
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(display, children[i], False, NoEventMask, &event);
    ++asked;
  }
  if (children) XFree(children);
  XCloseDisplay(display);
  return asked;
}

}  // namespace corvane::documents
