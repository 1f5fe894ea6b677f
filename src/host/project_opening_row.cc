#include "host/project_opening_row.h"

#include "documents/mac_project_opening.h"
#include "host/application_delegate.h"
#include "host/plugin_registry.h"

namespace corvane::host {

namespace {

// The service knows nothing of the host; this passes the host's happenings on to it.
class ProjectOpeningDelegate final : public ApplicationDelegate {
 public:
  explicit ProjectOpeningDelegate(std::unique_ptr<documents::MacProjectOpening> service)
      : service_(std::move(service)) {}

  bool HandleOpenUris(const std::vector<std::string>& uris) override {
    return service_->HandleOpenUrls(uris);
  }
  void HandleDidFinishLaunching() override { service_->HandleDidFinishLaunching(); }
  void HandleWillTerminate() override { service_->HandleWillTerminate(); }

 private:
  std::unique_ptr<documents::MacProjectOpening> service_;
};

}  // namespace

std::shared_ptr<void> MakeMacProjectOpening(Registrar& registrar) {
  documents::MacProjectOpening::Options options;
  options.window = documents::GtkWindowLookup(registrar.view());
  auto delegate = std::make_shared<ProjectOpeningDelegate>(
      std::make_unique<documents::MacProjectOpening>(registrar.messenger(), std::move(options)));
  registrar.AddApplicationDelegate(delegate);
  return delegate;
}

}  // namespace corvane::host
