#include "udp_fixture.h"

namespace corvane::udp::testing {

namespace {

class HoldingFlow final : public UdpFlow {
 public:
  HoldingFlow(std::shared_ptr<UdpFlow> inner, HoldingNetwork& network)
      : inner_(std::move(inner)), network_(network), shared_(std::make_shared<Shared>()) {}

  void SetStateHandler(StateHandler handler) override {
    shared_->handler = std::move(handler);
    // Holds only the shared part, so the inner flow's final notifications still get through
    // after the wrapper is dropped, without a reference cycle.
    inner_->SetStateHandler(
        [shared = shared_, &network = network_](FlowState state, const std::string& error) {
          if (state == FlowState::kReady && network.hold_ready) {
            shared->ready_held = true;
            network.Hold([shared] {
              shared->ready_held = false;
              if (shared->handler) shared->handler(FlowState::kReady, "");
            });
            return;
          }
          if (shared->handler) shared->handler(state, error);
        });
  }
  void Start() override { inner_->Start(); }
  FlowState state() const override {
    return shared_->ready_held ? FlowState::kPreparing : inner_->state();
  }
  void Receive(ReceiveHandler handler) override { inner_->Receive(std::move(handler)); }
  void Send(Bytes data, SendCompletion completion) override {
    if (!network_.hold_completions || !completion) {
      inner_->Send(std::move(data), std::move(completion));
      return;
    }
    inner_->Send(std::move(data), [&network = network_, completion = std::move(completion)](
                                      const std::optional<std::string>& error) {
      network.Hold([completion, error] { completion(error); });
    });
  }
  void Cancel() override { inner_->Cancel(); }

 private:
  struct Shared {
    StateHandler handler;
    bool ready_held = false;
  };
  std::shared_ptr<UdpFlow> inner_;
  HoldingNetwork& network_;
  std::shared_ptr<Shared> shared_;
};

}  // namespace

std::shared_ptr<UdpFlow> HoldingNetwork::Connect(const std::string& host, uint16_t port) {
  auto inner = inner_->Connect(host, port);
  if (!inner) return nullptr;
  return std::make_shared<HoldingFlow>(std::move(inner), *this);
}

}  // namespace corvane::udp::testing
