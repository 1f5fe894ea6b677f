// The host's watch of the camera's window on a real X server: minimising, hiding and closing
// the window that holds the view, and nothing from other windows.
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include "host/support.h"
#include "host/window_watch.h"

namespace corvane::host {
namespace {

using namespace std::chrono_literals;

class WindowWatchTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    xvfb_ = std::make_unique<testing::XvfbServer>();
    g_setenv("NO_AT_BRIDGE", "1", TRUE);
    if (xvfb_->ok()) {
      g_setenv("DISPLAY", xvfb_->display().c_str(), TRUE);
      gtk_ok_ = gtk_init_check(nullptr, nullptr);
    }
  }
  static void TearDownTestSuite() { xvfb_.reset(); }

  void SetUp() override {
    if (!gtk_ok_) GTEST_SKIP() << "no X server";
    window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    view_ = gtk_drawing_area_new();
    gtk_container_add(GTK_CONTAINER(window_), view_);
    other_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    watch_ = WindowWatch::Start(
        view_, {[this] { ++minimised_; }, [this] { ++closed_; }, [this] { ++hidden_; },
                [this] { ++sleeping_; }, [this] { ++terminating_; }});
    gtk_widget_show_all(window_);
    Settle();
  }
  void TearDown() override {
    watch_.reset();
    if (window_) gtk_widget_destroy(window_);
    if (other_) gtk_widget_destroy(other_);
  }

  static void Settle() {
    dispatch::RunMainUntil([] { return false; }, 50ms);
  }
  static void Iconify(GtkWidget* window, bool iconified) {
    // No window manager here to iconify for real: the event it would cause.
    GdkEvent* event = gdk_event_new(GDK_WINDOW_STATE);
    event->window_state.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(window)));
    event->window_state.changed_mask = GDK_WINDOW_STATE_ICONIFIED;
    event->window_state.new_window_state =
        iconified ? GDK_WINDOW_STATE_ICONIFIED : static_cast<GdkWindowState>(0);
    gtk_widget_event(window, event);
    gdk_event_free(event);
  }

  static inline std::unique_ptr<testing::XvfbServer> xvfb_;
  static inline bool gtk_ok_ = false;
  GtkWidget* window_ = nullptr;
  GtkWidget* view_ = nullptr;
  GtkWidget* other_ = nullptr;
  std::shared_ptr<WindowWatch> watch_;
  int minimised_ = 0, closed_ = 0, hidden_ = 0, sleeping_ = 0, terminating_ = 0;
};

TEST_F(WindowWatchTest, OnlyItsOwnWindowMinimisesAndHiddenNeedsEveryWindowUnmapped) {
  gtk_widget_show(other_);
  Settle();
  Iconify(other_, true);
  Iconify(window_, false);  // restored is not minimised
  EXPECT_EQ(minimised_, 0);
  Iconify(window_, true);
  EXPECT_EQ(minimised_, 1);

  EXPECT_TRUE(WindowWatch::ApplicationVisible());
  gtk_widget_hide(window_);
  EXPECT_EQ(hidden_, 0) << "another window still shows";
  EXPECT_TRUE(WindowWatch::ApplicationVisible());
  gtk_widget_show(window_);
  gtk_widget_hide(other_);
  Settle();
  gtk_widget_hide(window_);
  EXPECT_EQ(hidden_, 1);
  EXPECT_FALSE(WindowWatch::ApplicationVisible());

  // A watch that has gone hears nothing of its window.
  watch_.reset();
  gtk_widget_destroy(window_);
  window_ = nullptr;
  EXPECT_EQ(closed_, 0);
}

TEST_F(WindowWatchTest, ClosingTheWindowAndQuittingAreReported) {
  watch_->HandleWillTerminate();
  EXPECT_EQ(terminating_, 1);
  gtk_widget_destroy(window_);
  window_ = nullptr;
  EXPECT_EQ(closed_, 1);
  EXPECT_EQ(sleeping_, 0) << "no system bus here";
}

TEST(WindowWatchHeadless, WithoutAViewOnlyQuittingIsHeard) {
  int terminating = 0;
  auto watch = WindowWatch::Start(nullptr, {{}, {}, {}, {}, [&] { ++terminating; }});
  watch->HandleWillTerminate();
  EXPECT_EQ(terminating, 1);
}

}  // namespace
}  // namespace corvane::host
