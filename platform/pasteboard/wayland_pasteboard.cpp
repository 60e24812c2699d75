// Wayland clipboard over data-control. Both protocol families have the same requests and events,
// so one implementation is written against a small traits struct for each.
#include "platform/pasteboard/wayland_pasteboard.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <wayland-client.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "ext-data-control-v1-client-protocol.h"
#include "wlr-data-control-unstable-v1-client-protocol.h"

namespace linkwash {
namespace {

constexpr int kReadTimeoutMs = 1000;
constexpr int kWriteTimeoutMs = 1000;
// Larger payloads are ignored by every reader, so a transfer stops one byte past this.
constexpr std::size_t kReadLimit = 65536 + 1;
constexpr std::array<const char*, 5> kTextTypes = {"text/plain;charset=utf-8", "UTF8_STRING",
                                                   "text/plain", "TEXT", "STRING"};

bool isRefusedType(const std::string& type) {
  return type == "x-kde-passwordManagerHint" || type == "x-special/gnome-copied-files" ||
         type.starts_with("image/");
}

// Reads `fd` to its end (or kReadLimit bytes), giving up after kReadTimeoutMs of silence.
std::optional<std::string> readPipe(int fd) {
  std::string data;
  char buffer[8192];
  for (;;) {
    pollfd wait{fd, POLLIN, 0};
    int ready = poll(&wait, 1, kReadTimeoutMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) return data;
    data.append(buffer, static_cast<std::size_t>(n));
    if (data.size() >= kReadLimit) {
      data.resize(kReadLimit);
      return data;
    }
  }
}

void writePipe(int fd, std::string_view data) {
  while (!data.empty()) {
    pollfd wait{fd, POLLOUT, 0};
    int ready = poll(&wait, 1, kWriteTimeoutMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return;
    ssize_t n = write(fd, data.data(), data.size());
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) return;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
}

// The requests of one protocol family; the events are bound through listeners below.
#define LINKWASH_DATA_CONTROL_TRAITS(Name, prefix)                                                \
  struct Name {                                                                                   \
    using Manager = prefix##_manager_v1;                                                          \
    using Device = prefix##_device_v1;                                                            \
    using Source = prefix##_source_v1;                                                            \
    using Offer = prefix##_offer_v1;                                                              \
    using DeviceListener = prefix##_device_v1_listener;                                           \
    using SourceListener = prefix##_source_v1_listener;                                           \
    using OfferListener = prefix##_offer_v1_listener;                                             \
    static const wl_interface* managerInterface() { return &prefix##_manager_v1_interface; }      \
    static Device* getDevice(Manager* m, wl_seat* s) {                                            \
      return prefix##_manager_v1_get_data_device(m, s);                                           \
    }                                                                                             \
    static Source* createSource(Manager* m) { return prefix##_manager_v1_create_data_source(m); } \
    static void destroyManager(Manager* m) { prefix##_manager_v1_destroy(m); }                    \
    static void setSelection(Device* d, Source* s) { prefix##_device_v1_set_selection(d, s); }    \
    static void destroyDevice(Device* d) { prefix##_device_v1_destroy(d); }                       \
    static int listen(Device* d, const DeviceListener* l, void* data) {                           \
      return prefix##_device_v1_add_listener(d, l, data);                                         \
    }                                                                                             \
    static void offer(Source* s, const char* type) { prefix##_source_v1_offer(s, type); }         \
    static void destroySource(Source* s) { prefix##_source_v1_destroy(s); }                       \
    static int listen(Source* s, const SourceListener* l, void* data) {                           \
      return prefix##_source_v1_add_listener(s, l, data);                                         \
    }                                                                                             \
    static void receive(Offer* o, const char* type, int fd) {                                     \
      prefix##_offer_v1_receive(o, type, fd);                                                     \
    }                                                                                             \
    static void destroyOffer(Offer* o) { prefix##_offer_v1_destroy(o); }                          \
    static int listen(Offer* o, const OfferListener* l, void* data) {                             \
      return prefix##_offer_v1_add_listener(o, l, data);                                          \
    }                                                                                             \
  };

LINKWASH_DATA_CONTROL_TRAITS(ExtProtocol, ext_data_control)
LINKWASH_DATA_CONTROL_TRAITS(WlrProtocol, zwlr_data_control)
#undef LINKWASH_DATA_CONTROL_TRAITS

// What the pasteboard needs from a protocol family, whichever it is.
class DataControl {
 public:
  virtual ~DataControl() = default;
  // Starts a transfer of the current selection as `type` into `fd`; false without a selection.
  virtual bool receive(const std::string& type, int fd) = 0;
  virtual void offerText(const std::vector<std::string>& types) = 0;
};

}  // namespace

struct WaylandPasteboard::Impl {
  wl_display* display = nullptr;
  wl_registry* registry = nullptr;
  wl_seat* seat = nullptr;
  std::uint32_t extName = 0, extVersion = 0, wlrName = 0, wlrVersion = 0;
  std::unique_ptr<DataControl> control;
  std::thread eventThread;
  std::array<int, 2> wakePipe{-1, -1};
  std::atomic<bool> stopping{false};

  // Guards everything below and every use of the protocol objects; the event thread holds it
  // while it dispatches.
  mutable std::mutex mutex;
  std::int64_t changeCount = 0;
  bool owning = false;
  std::string ownerMarker;  // an extra type offered by our own sources, to recognise them
  std::optional<std::string> ownedText;
  std::optional<std::string> ownedURL;
  std::vector<std::string> currentTypes;  // of the current selection; empty when none
  std::uint64_t sources = 0;

  ~Impl() {
    stopping = true;
    if (wakePipe[1] >= 0) {
      char byte = 0;
      [[maybe_unused]] auto n = write(wakePipe[1], &byte, 1);
    }
    if (eventThread.joinable()) eventThread.join();
    control.reset();
    if (seat != nullptr) wl_seat_destroy(seat);
    if (registry != nullptr) wl_registry_destroy(registry);
    if (display != nullptr) wl_display_disconnect(display);
    for (int fd : wakePipe) {
      if (fd >= 0) close(fd);
    }
  }

  // Called with the mutex held, from dispatch.
  void selectionChanged(std::vector<std::string> types) {
    bool ours = std::find(types.begin(), types.end(), ownerMarker) != types.end();
    currentTypes = std::move(types);
    if (ours) return;  // counted when we set it
    owning = false;
    ++changeCount;
  }

  void sendOwned(const std::string& type, int fd) {
    const bool isURL = type == "text/uri-list";
    const auto& payload = isURL ? ownedURL : ownedText;
    if (owning && payload) writePipe(fd, *payload + (isURL ? "\r\n" : ""));
    close(fd);
  }

  void runEvents() {
    std::array<pollfd, 2> fds = {pollfd{wl_display_get_fd(display), POLLIN, 0},
                                 pollfd{wakePipe[0], POLLIN, 0}};
    while (!stopping) {
      {
        std::lock_guard lock(mutex);
        while (wl_display_prepare_read(display) != 0) wl_display_dispatch_pending(display);
      }
      wl_display_flush(display);
      if (poll(fds.data(), fds.size(), -1) < 0 || !(fds[0].revents & POLLIN)) {
        wl_display_cancel_read(display);
        if (fds[0].revents & (POLLERR | POLLHUP)) return;
        continue;
      }
      if (wl_display_read_events(display) != 0) return;
      std::lock_guard lock(mutex);
      if (wl_display_dispatch_pending(display) < 0) return;
    }
  }
};

namespace {

template <typename P>
class DataControlOf final : public DataControl {
 public:
  DataControlOf(WaylandPasteboard::Impl& impl, typename P::Manager* manager)
      : impl_(impl), manager_(manager), device_(P::getDevice(manager, impl.seat)) {
    P::listen(device_, &kDeviceListener, this);
  }
  ~DataControlOf() override {
    for (auto& [offer, types] : offers_) P::destroyOffer(offer);
    if (current_ != nullptr) P::destroyOffer(current_);
    if (source_ != nullptr) P::destroySource(source_);
    P::destroyDevice(device_);
    P::destroyManager(manager_);
  }

  bool receive(const std::string& type, int fd) override {
    if (current_ == nullptr) return false;
    P::receive(current_, type.c_str(), fd);
    return true;
  }

  void offerText(const std::vector<std::string>& types) override {
    // The previous source stays until the compositor cancels it: destroying it first would clear
    // the selection in between, which looks like someone else's change.
    source_ = P::createSource(manager_);
    P::listen(source_, &kSourceListener, this);
    for (const auto& type : types) P::offer(source_, type.c_str());
    P::setSelection(device_, source_);
  }

 private:
  using Offer = typename P::Offer;
  using Source = typename P::Source;
  using Device = typename P::Device;

  static DataControlOf& self(void* data) { return *static_cast<DataControlOf*>(data); }

  static void onOfferType(void* data, Offer* offer, const char* type) {
    for (auto& [known, types] : self(data).offers_) {
      if (known == offer) types.emplace_back(type);
    }
  }
  static void onDataOffer(void* data, Device*, Offer* offer) {
    self(data).offers_.push_back({offer, {}});
    P::listen(offer, &kOfferListener, data);
  }
  // Takes `offer` out of the pending list and answers its types.
  std::vector<std::string> claim(Offer* offer) {
    std::vector<std::string> types;
    for (auto it = offers_.begin(); it != offers_.end(); ++it) {
      if (it->first == offer) {
        types = std::move(it->second);
        offers_.erase(it);
        break;
      }
    }
    return types;
  }
  static void onSelection(void* data, Device*, Offer* offer) {
    auto& me = self(data);
    if (me.current_ != nullptr) P::destroyOffer(me.current_);
    me.current_ = offer;
    me.impl_.selectionChanged(offer != nullptr ? me.claim(offer) : std::vector<std::string>{});
  }
  static void onPrimarySelection(void* data, Device*, Offer* offer) {
    // PRIMARY holds whatever was last highlighted; it is never read.
    if (offer != nullptr) {
      self(data).claim(offer);
      P::destroyOffer(offer);
    }
  }
  static void onFinished(void* data, Device*) {
    // The seat went away; nothing more will be seen.
    self(data).impl_.currentTypes.clear();
  }
  static void onSend(void* data, Source*, const char* type, std::int32_t fd) {
    self(data).impl_.sendOwned(type, fd);
  }
  static void onCancelled(void* data, Source* source) {
    auto& me = self(data);
    if (source == me.source_) me.source_ = nullptr;
    P::destroySource(source);
  }

  static constexpr typename P::OfferListener kOfferListener = {onOfferType};
  static constexpr typename P::SourceListener kSourceListener = {onSend, onCancelled};
  static constexpr typename P::DeviceListener kDeviceListener = {onDataOffer, onSelection,
                                                                 onFinished, onPrimarySelection};

  WaylandPasteboard::Impl& impl_;
  typename P::Manager* manager_;
  Device* device_;
  Source* source_ = nullptr;
  Offer* current_ = nullptr;
  std::vector<std::pair<Offer*, std::vector<std::string>>> offers_;
};

void onGlobal(void* data, wl_registry*, std::uint32_t name, const char* interface,
              std::uint32_t version) {
  auto& impl = *static_cast<WaylandPasteboard::Impl*>(data);
  std::string_view which(interface);
  if (which == wl_seat_interface.name && impl.seat == nullptr) {
    impl.seat = static_cast<wl_seat*>(wl_registry_bind(impl.registry, name, &wl_seat_interface, 1));
  } else if (which == ExtProtocol::managerInterface()->name) {
    impl.extName = name;
    impl.extVersion = version;
  } else if (which == WlrProtocol::managerInterface()->name) {
    impl.wlrName = name;
    impl.wlrVersion = version;
  }
}
void onGlobalRemove(void*, wl_registry*, std::uint32_t) {}
constexpr wl_registry_listener kRegistryListener = {onGlobal, onGlobalRemove};

}  // namespace

WaylandPasteboard::Connection WaylandPasteboard::connect(const std::string& display) {
  auto impl = std::make_unique<Impl>();
  impl->display = wl_display_connect(display.empty() ? nullptr : display.c_str());
  if (impl->display == nullptr) return {nullptr, "cannot connect to the Wayland compositor"};
  impl->registry = wl_display_get_registry(impl->display);
  wl_registry_add_listener(impl->registry, &kRegistryListener, impl.get());
  if (wl_display_roundtrip(impl->display) < 0) return {nullptr, "the compositor went away"};
  if (impl->seat == nullptr) return {nullptr, "the compositor has no seat"};
  // Version 1 of either: later versions add the primary selection, which is never touched.
  if (impl->extName != 0) {
    auto* manager = static_cast<ExtProtocol::Manager*>(
        wl_registry_bind(impl->registry, impl->extName, ExtProtocol::managerInterface(), 1));
    impl->control = std::make_unique<DataControlOf<ExtProtocol>>(*impl, manager);
  } else if (impl->wlrName != 0) {
    auto* manager = static_cast<WlrProtocol::Manager*>(
        wl_registry_bind(impl->registry, impl->wlrName, WlrProtocol::managerInterface(), 1));
    impl->control = std::make_unique<DataControlOf<WlrProtocol>>(*impl, manager);
  } else {
    return {nullptr, "the compositor offers no data-control protocol"};
  }
  impl->ownerMarker = "application/x-linkwash-source-" + std::to_string(getpid());
  // The selection present now arrives here and is not a change.
  if (wl_display_roundtrip(impl->display) < 0) return {nullptr, "the compositor went away"};
  impl->changeCount = 0;
  if (pipe2(impl->wakePipe.data(), O_CLOEXEC | O_NONBLOCK) != 0) return {nullptr, "no pipe"};
  Impl* raw = impl.get();
  impl->eventThread = std::thread([raw] { raw->runEvents(); });
  return {std::unique_ptr<WaylandPasteboard>(new WaylandPasteboard(std::move(impl))), ""};
}

WaylandPasteboard::WaylandPasteboard(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
WaylandPasteboard::~WaylandPasteboard() = default;

std::int64_t WaylandPasteboard::changeCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->changeCount;
}

std::vector<PasteboardItem> WaylandPasteboard::items() const {
  std::vector<std::string> types;
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->owning) {
      if (!impl_->ownedText && !impl_->ownedURL) return {};
      return {PasteboardItem{impl_->ownedText, impl_->ownedURL}};
    }
    types = impl_->currentTypes;
  }
  auto offers = [&](const std::string& type) {
    return std::find(types.begin(), types.end(), type) != types.end();
  };
  if (std::any_of(types.begin(), types.end(), isRefusedType)) return {};
  auto fetch = [&](const std::string& type) -> std::optional<std::string> {
    std::array<int, 2> fds{};
    if (pipe2(fds.data(), O_CLOEXEC) != 0) return std::nullopt;
    bool started;
    {
      std::lock_guard lock(impl_->mutex);
      started = impl_->control->receive(type, fds[1]);
    }
    wl_display_flush(impl_->display);
    close(fds[1]);
    std::optional<std::string> data = started ? readPipe(fds[0]) : std::nullopt;
    close(fds[0]);
    return data;
  };

  PasteboardItem item;
  if (offers("text/uri-list")) {
    if (auto list = fetch("text/uri-list")) {
      if (list->find("file:") != std::string::npos) return {};
      std::size_t end = list->find_first_of("\r\n");
      std::string first = list->substr(0, end);
      if (!first.empty() && first.front() != '#') item.url = first;
    }
  }
  for (const char* type : kTextTypes) {
    if (!offers(type)) continue;
    if (auto text = fetch(type)) item.text = std::move(*text);
    break;
  }
  if (!item.text && !item.url) return {};
  return {std::move(item)};
}

std::int64_t WaylandPasteboard::clearContents() {
  std::int64_t count;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->owning = true;
    impl_->ownedText.reset();
    impl_->ownedURL.reset();
    count = ++impl_->changeCount;
  }
  return count;
}

bool WaylandPasteboard::setString(std::string_view value, PasteboardType type) {
  {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->owning) {
      impl_->owning = true;
      impl_->ownedText.reset();
      impl_->ownedURL.reset();
      ++impl_->changeCount;
    }
    (type == PasteboardType::string ? impl_->ownedText : impl_->ownedURL) = std::string(value);
    std::vector<std::string> types = {impl_->ownerMarker};
    if (impl_->ownedText) types.insert(types.end(), kTextTypes.begin(), kTextTypes.end());
    if (impl_->ownedURL) types.emplace_back("text/uri-list");
    impl_->control->offerText(types);
  }
  wl_display_flush(impl_->display);
  return true;
}

}  // namespace linkwash
