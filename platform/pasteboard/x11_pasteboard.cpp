// X11 clipboard: a hidden window that owns CLIPBOARD when we write, answers paste requests from
// an event thread, and reads other clients' selections through ConvertSelection.
#include "platform/pasteboard/x11_pasteboard.h"

#include <poll.h>
#include <unistd.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace linkwash {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kReplyTimeout = std::chrono::milliseconds(1000);
// Larger payloads are ignored by every reader, so a transfer stops one byte past this.
constexpr std::size_t kReadLimit = 65536 + 1;

enum AtomIndex : std::size_t {
  kClipboard,
  kTargets,
  kTimestamp,
  kMultiple,
  kIncr,
  kUtf8String,
  kTextPlainUtf8,
  kTextPlain,
  kText,
  kUriList,
  kPasswordHint,
  kGnomeCopiedFiles,
  kClipboardManager,
  kSaveTargets,
  kAtomPair,
  kTransferProperty,
  kTimeProperty,
  kAtomCount
};

constexpr std::array<const char*, kAtomCount> kAtomNames = {
    "CLIPBOARD",
    "TARGETS",
    "TIMESTAMP",
    "MULTIPLE",
    "INCR",
    "UTF8_STRING",
    "text/plain;charset=utf-8",
    "text/plain",
    "TEXT",
    "text/uri-list",
    "x-kde-passwordManagerHint",
    "x-special/gnome-copied-files",
    "CLIPBOARD_MANAGER",
    "SAVE_TARGETS",
    "ATOM_PAIR",
    "LINKWASH_TRANSFER",
    "LINKWASH_TIME",
};

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using XcbPtr = std::unique_ptr<T, FreeDeleter>;

}  // namespace

struct X11Pasteboard::Impl {
  xcb_connection_t* connection = nullptr;
  xcb_window_t window = 0;
  std::array<xcb_atom_t, kAtomCount> atoms{};
  std::uint8_t xfixesEventBase = 0;
  std::size_t maximumRequestBytes = 0;
  std::array<int, 2> wakePipe{-1, -1};
  std::thread eventThread;
  std::atomic<bool> stopping{false};

  mutable std::mutex mutex;  // everything below
  mutable std::condition_variable changed;
  std::int64_t changeCount = 0;
  bool owning = false;
  xcb_timestamp_t ownedSince = XCB_CURRENT_TIME;
  std::optional<std::string> ownedText;
  std::optional<std::string> ownedURL;
  std::deque<xcb_selection_notify_event_t> selectionNotifies;
  std::deque<xcb_property_notify_event_t> propertyNotifies;

  mutable std::mutex readMutex;  // one transfer at a time: they share the transfer property

  xcb_atom_t atom(AtomIndex index) const { return atoms[index]; }

  ~Impl() {
    stopping = true;
    kick();
    if (eventThread.joinable()) eventThread.join();
    if (connection != nullptr) xcb_disconnect(connection);
    for (int fd : wakePipe) {
      if (fd >= 0) close(fd);
    }
  }

  // Events read while another thread waited for a reply sit in xcb's queue without making the
  // socket readable; a byte on the pipe makes the event thread look.
  void kick() const {
    if (wakePipe[1] >= 0) {
      char byte = 0;
      [[maybe_unused]] auto written = write(wakePipe[1], &byte, 1);
    }
  }

  void runEvents() {
    std::array<pollfd, 2> fds = {pollfd{xcb_get_file_descriptor(connection), POLLIN, 0},
                                 pollfd{wakePipe[0], POLLIN, 0}};
    while (!stopping) {
      while (xcb_generic_event_t* raw = xcb_poll_for_event(connection)) {
        XcbPtr<xcb_generic_event_t> event(raw);
        handle(*event);
      }
      if (xcb_connection_has_error(connection)) {
        // The server went away: no more changes will be seen and writes cannot be served.
        std::lock_guard lock(mutex);
        owning = false;
        changed.notify_all();
        return;
      }
      if (poll(fds.data(), fds.size(), -1) < 0) continue;
      if (fds[1].revents & POLLIN) {
        std::array<char, 64> drain{};
        [[maybe_unused]] auto n = read(wakePipe[0], drain.data(), drain.size());
      }
    }
  }

  void handle(const xcb_generic_event_t& event) {
    std::uint8_t type = event.response_type & 0x7f;
    if (type == xfixesEventBase + XCB_XFIXES_SELECTION_NOTIFY) {
      const auto& notify = reinterpret_cast<const xcb_xfixes_selection_notify_event_t&>(event);
      if (notify.selection != atom(kClipboard)) return;
      std::lock_guard lock(mutex);
      // Our own ownership was counted when we took it.
      if (notify.owner == window) return;
      owning = false;
      ++changeCount;
      changed.notify_all();
      return;
    }
    switch (type) {
      case XCB_SELECTION_REQUEST:
        serve(reinterpret_cast<const xcb_selection_request_event_t&>(event));
        break;
      case XCB_SELECTION_CLEAR: {
        std::lock_guard lock(mutex);
        owning = false;
        break;
      }
      case XCB_SELECTION_NOTIFY: {
        std::lock_guard lock(mutex);
        selectionNotifies.push_back(reinterpret_cast<const xcb_selection_notify_event_t&>(event));
        changed.notify_all();
        break;
      }
      case XCB_PROPERTY_NOTIFY: {
        const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
        if (notify.window != window) break;
        std::lock_guard lock(mutex);
        propertyNotifies.push_back(notify);
        changed.notify_all();
        break;
      }
      default:
        break;
    }
  }

  std::vector<xcb_atom_t> offeredTargets(bool withURL) const {
    std::vector<xcb_atom_t> targets = {atom(kTargets),       atom(kTimestamp), atom(kUtf8String),
                                       atom(kTextPlainUtf8), XCB_ATOM_STRING,  atom(kText),
                                       atom(kTextPlain)};
    if (withURL) targets.push_back(atom(kUriList));
    return targets;
  }

  void serve(const xcb_selection_request_event_t& request) {
    xcb_atom_t property = request.property == XCB_NONE ? request.target : request.property;
    bool answered = false;
    {
      std::lock_guard lock(mutex);
      const bool isText = request.target == atom(kUtf8String) ||
                          request.target == atom(kTextPlainUtf8) ||
                          request.target == XCB_ATOM_STRING || request.target == atom(kText) ||
                          request.target == atom(kTextPlain);
      const std::optional<std::string>* payload = isText                             ? &ownedText
                                                  : request.target == atom(kUriList) ? &ownedURL
                                                                                     : nullptr;
      if (request.selection != atom(kClipboard) || !owning) {
        // Not ours (any more): refuse.
      } else if (request.target == atom(kTargets)) {
        auto targets = offeredTargets(ownedURL.has_value());
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, request.requestor, property,
                            XCB_ATOM_ATOM, 32, static_cast<std::uint32_t>(targets.size()),
                            targets.data());
        answered = true;
      } else if (request.target == atom(kTimestamp)) {
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, request.requestor, property,
                            XCB_ATOM_INTEGER, 32, 1, &ownedSince);
        answered = true;
      } else if (payload != nullptr && payload->has_value() &&
                 (*payload)->size() + 64 < maximumRequestBytes) {
        // Our writes stay far below the request size, so incremental transfers are never needed.
        xcb_atom_t type = request.target == atom(kText) ? atom(kUtf8String) : request.target;
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, request.requestor, property, type, 8,
                            static_cast<std::uint32_t>((*payload)->size()), (*payload)->data());
        answered = true;
      }
    }
    xcb_selection_notify_event_t reply{};
    reply.response_type = XCB_SELECTION_NOTIFY;
    reply.time = request.time;
    reply.requestor = request.requestor;
    reply.selection = request.selection;
    reply.target = request.target;
    reply.property = answered ? property : XCB_NONE;
    xcb_send_event(connection, 0, request.requestor, XCB_EVENT_MASK_NO_EVENT,
                   reinterpret_cast<const char*>(&reply));
    xcb_flush(connection);
  }

  template <typename Predicate>
  std::optional<xcb_selection_notify_event_t> waitForSelectionNotify(Predicate matches) {
    std::unique_lock lock(mutex);
    auto deadline = Clock::now() + kReplyTimeout;
    for (;;) {
      for (auto it = selectionNotifies.begin(); it != selectionNotifies.end(); ++it) {
        if (matches(*it)) {
          auto found = *it;
          selectionNotifies.erase(it);
          return found;
        }
      }
      if (changed.wait_until(lock, deadline) == std::cv_status::timeout) return std::nullopt;
    }
  }

  std::optional<xcb_property_notify_event_t> waitForProperty(xcb_atom_t property,
                                                             std::uint8_t state) {
    std::unique_lock lock(mutex);
    auto deadline = Clock::now() + kReplyTimeout;
    for (;;) {
      while (!propertyNotifies.empty()) {
        auto notify = propertyNotifies.front();
        propertyNotifies.pop_front();
        if (notify.atom == property && notify.state == state) return notify;
      }
      if (changed.wait_until(lock, deadline) == std::cv_status::timeout) return std::nullopt;
    }
  }

  // The server's time, read from the notification of a harmless property change.
  xcb_timestamp_t serverTime() {
    {
      std::lock_guard lock(mutex);
      propertyNotifies.clear();
    }
    xcb_change_property(connection, XCB_PROP_MODE_APPEND, window, atom(kTimeProperty),
                        XCB_ATOM_STRING, 8, 0, nullptr);
    xcb_flush(connection);
    auto notify = waitForProperty(atom(kTimeProperty), XCB_PROPERTY_NEW_VALUE);
    return notify ? notify->time : XCB_CURRENT_TIME;
  }

  struct Property {
    xcb_atom_t type = XCB_NONE;
    std::string bytes;
  };

  std::optional<Property> takeProperty(std::size_t limit) {
    auto cookie =
        xcb_get_property(connection, 1, window, atom(kTransferProperty), XCB_GET_PROPERTY_TYPE_ANY,
                         0, static_cast<std::uint32_t>((limit + 3) / 4));
    XcbPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(connection, cookie, nullptr));
    kick();
    if (!reply) return std::nullopt;
    auto length = static_cast<std::size_t>(xcb_get_property_value_length(reply.get()));
    Property property{
        reply->type,
        std::string(static_cast<const char*>(xcb_get_property_value(reply.get())), length)};
    if (reply->bytes_after > 0) {
      // The rest is left behind; the answer is only ever used to see that it is too long.
      xcb_delete_property(connection, window, atom(kTransferProperty));
      property.bytes.resize(limit);
    }
    return property;
  }

  // The selection converted to `target`; nothing when the owner refused or did not answer.
  std::optional<Property> convert(xcb_atom_t selection, xcb_atom_t target) {
    {
      std::lock_guard lock(mutex);
      selectionNotifies.clear();
      propertyNotifies.clear();
    }
    xcb_delete_property(connection, window, atom(kTransferProperty));
    xcb_convert_selection(connection, window, selection, target, atom(kTransferProperty),
                          XCB_CURRENT_TIME);
    xcb_flush(connection);
    auto notify = waitForSelectionNotify([&](const xcb_selection_notify_event_t& n) {
      return n.selection == selection && n.target == target;
    });
    if (!notify || notify->property == XCB_NONE) return std::nullopt;
    auto property = takeProperty(kReadLimit);
    if (!property || property->type != atom(kIncr)) return property;

    // Incremental transfer: each deletion asks for the next chunk; an empty chunk ends it.
    Property whole;
    for (;;) {
      auto chunk = waitForProperty(atom(kTransferProperty), XCB_PROPERTY_NEW_VALUE);
      if (!chunk) return std::nullopt;
      auto piece = takeProperty(kReadLimit);
      if (!piece) return std::nullopt;
      if (piece->bytes.empty()) break;
      whole.type = piece->type;
      whole.bytes += piece->bytes;
      if (whole.bytes.size() >= kReadLimit) {
        whole.bytes.resize(kReadLimit);
        break;
      }
    }
    return whole;
  }

  std::vector<std::string> atomNames(const std::vector<xcb_atom_t>& list) {
    std::vector<xcb_get_atom_name_cookie_t> cookies;
    for (auto a : list) cookies.push_back(xcb_get_atom_name(connection, a));
    std::vector<std::string> names;
    for (auto cookie : cookies) {
      XcbPtr<xcb_get_atom_name_reply_t> reply(xcb_get_atom_name_reply(connection, cookie, nullptr));
      names.push_back(reply ? std::string(xcb_get_atom_name_name(reply.get()),
                                          xcb_get_atom_name_name_length(reply.get()))
                            : std::string());
    }
    kick();
    return names;
  }

  std::vector<PasteboardItem> readForeign() {
    auto targetsProperty = convert(atom(kClipboard), atom(kTargets));
    if (!targetsProperty) return {};
    std::vector<xcb_atom_t> targets(targetsProperty->bytes.size() / sizeof(xcb_atom_t));
    std::memcpy(targets.data(), targetsProperty->bytes.data(), targets.size() * sizeof(xcb_atom_t));
    auto offers = [&](AtomIndex index) {
      return std::find(targets.begin(), targets.end(), atom(index)) != targets.end();
    };
    if (offers(kPasswordHint) || offers(kGnomeCopiedFiles)) return {};
    for (const auto& name : atomNames(targets)) {
      if (name.starts_with("image/")) return {};
    }

    PasteboardItem item;
    if (offers(kUriList)) {
      auto list = convert(atom(kClipboard), atom(kUriList));
      if (list) {
        if (list->bytes.find("file:") != std::string::npos) return {};
        std::size_t start = 0;
        while (start < list->bytes.size()) {
          std::size_t end = list->bytes.find('\n', start);
          if (end == std::string::npos) end = list->bytes.size();
          std::string line = list->bytes.substr(start, end - start);
          if (!line.empty() && line.back() == '\r') line.pop_back();
          if (!line.empty() && line.front() != '#') {
            item.url = line;
            break;
          }
          start = end + 1;
        }
      }
    }
    for (AtomIndex index : {kUtf8String, kTextPlainUtf8, kTextPlain}) {
      if (!offers(index)) continue;
      if (auto text = convert(atom(kClipboard), atom(index))) {
        item.text = std::move(text->bytes);
        break;
      }
    }
    if (!item.text && offers(kText)) {
      // Legacy owners only; STRING is Latin-1 and kept only when it is plain ASCII.
      if (auto text = convert(atom(kClipboard), XCB_ATOM_STRING)) {
        bool ascii = std::all_of(text->bytes.begin(), text->bytes.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
        if (ascii) item.text = std::move(text->bytes);
      }
    }
    if (!item.text && !item.url) return {};
    return {std::move(item)};
  }

  std::int64_t takeOwnership() {
    xcb_timestamp_t time = serverTime();
    std::int64_t count;
    {
      std::lock_guard lock(mutex);
      owning = true;
      ownedSince = time;
      ownedText.reset();
      ownedURL.reset();
      count = ++changeCount;
    }
    xcb_set_selection_owner(connection, window, atom(kClipboard), time);
    auto cookie = xcb_get_selection_owner(connection, atom(kClipboard));
    XcbPtr<xcb_get_selection_owner_reply_t> reply(
        xcb_get_selection_owner_reply(connection, cookie, nullptr));
    kick();
    if (!reply || reply->owner != window) {
      std::lock_guard lock(mutex);
      owning = false;
    }
    return count;
  }
};

std::unique_ptr<X11Pasteboard> X11Pasteboard::connect(const std::string& display) {
  auto impl = std::make_unique<Impl>();
  int screenNumber = 0;
  impl->connection = xcb_connect(display.empty() ? nullptr : display.c_str(), &screenNumber);
  if (xcb_connection_has_error(impl->connection)) return nullptr;
  const xcb_query_extension_reply_t* xfixes =
      xcb_get_extension_data(impl->connection, &xcb_xfixes_id);
  if (xfixes == nullptr || !xfixes->present) return nullptr;
  impl->xfixesEventBase = xfixes->first_event;
  XcbPtr<xcb_xfixes_query_version_reply_t> version(xcb_xfixes_query_version_reply(
      impl->connection, xcb_xfixes_query_version(impl->connection, 5, 0), nullptr));
  if (!version) return nullptr;

  xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(impl->connection));
  for (int i = 0; i < screenNumber && screens.rem > 0; ++i) xcb_screen_next(&screens);
  if (screens.rem == 0) return nullptr;
  impl->window = xcb_generate_id(impl->connection);
  std::uint32_t eventMask = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_create_window(impl->connection, XCB_COPY_FROM_PARENT, impl->window, screens.data->root, 0, 0,
                    1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK,
                    &eventMask);

  std::array<xcb_intern_atom_cookie_t, kAtomCount> cookies{};
  for (std::size_t i = 0; i < kAtomCount; ++i) {
    cookies[i] = xcb_intern_atom(
        impl->connection, 0, static_cast<std::uint16_t>(std::strlen(kAtomNames[i])), kAtomNames[i]);
  }
  for (std::size_t i = 0; i < kAtomCount; ++i) {
    XcbPtr<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(impl->connection, cookies[i], nullptr));
    if (!reply) return nullptr;
    impl->atoms[i] = reply->atom;
  }
  xcb_xfixes_select_selection_input(impl->connection, impl->window, impl->atoms[kClipboard],
                                    XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER |
                                        XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY |
                                        XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
  impl->maximumRequestBytes =
      static_cast<std::size_t>(xcb_get_maximum_request_length(impl->connection)) * 4;
  xcb_flush(impl->connection);
  if (pipe2(impl->wakePipe.data(), O_CLOEXEC | O_NONBLOCK) != 0) return nullptr;
  Impl* raw = impl.get();
  impl->eventThread = std::thread([raw] { raw->runEvents(); });
  return std::unique_ptr<X11Pasteboard>(new X11Pasteboard(std::move(impl)));
}

X11Pasteboard::X11Pasteboard(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

X11Pasteboard::~X11Pasteboard() {
  if (ownsClipboard()) handOverToClipboardManager();
}

std::int64_t X11Pasteboard::changeCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->changeCount;
}

std::vector<PasteboardItem> X11Pasteboard::items() const {
  std::lock_guard readLock(impl_->readMutex);
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->owning) {
      if (!impl_->ownedText && !impl_->ownedURL) return {};
      return {PasteboardItem{impl_->ownedText, impl_->ownedURL}};
    }
  }
  return impl_->readForeign();
}

std::int64_t X11Pasteboard::clearContents() {
  std::lock_guard readLock(impl_->readMutex);
  return impl_->takeOwnership();
}

bool X11Pasteboard::setString(std::string_view value, PasteboardType type) {
  std::lock_guard readLock(impl_->readMutex);
  bool owning;
  {
    std::lock_guard lock(impl_->mutex);
    owning = impl_->owning;
  }
  if (!owning) impl_->takeOwnership();
  std::lock_guard lock(impl_->mutex);
  if (!impl_->owning) return false;
  (type == PasteboardType::string ? impl_->ownedText : impl_->ownedURL) = std::string(value);
  return true;
}

bool X11Pasteboard::ownsClipboard() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->owning;
}

bool X11Pasteboard::handOverToClipboardManager(int timeoutMs) {
  std::lock_guard readLock(impl_->readMutex);
  auto* c = impl_->connection;
  XcbPtr<xcb_get_selection_owner_reply_t> manager(xcb_get_selection_owner_reply(
      c, xcb_get_selection_owner(c, impl_->atom(kClipboardManager)), nullptr));
  impl_->kick();
  if (!manager || manager->owner == XCB_NONE) return false;
  std::vector<xcb_atom_t> targets;
  {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->owning) return false;
    targets = {impl_->atom(kUtf8String), impl_->atom(kTextPlainUtf8), XCB_ATOM_STRING};
    impl_->selectionNotifies.clear();
  }
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, impl_->window, impl_->atom(kTransferProperty),
                      XCB_ATOM_ATOM, 32, static_cast<std::uint32_t>(targets.size()),
                      targets.data());
  xcb_convert_selection(c, impl_->window, impl_->atom(kClipboardManager), impl_->atom(kSaveTargets),
                        impl_->atom(kTransferProperty), XCB_CURRENT_TIME);
  xcb_flush(c);
  // The manager asks us for the data (served by the event thread), then answers.
  std::unique_lock lock(impl_->mutex);
  return impl_->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
    for (const auto& n : impl_->selectionNotifies) {
      if (n.selection == impl_->atom(kClipboardManager)) return true;
    }
    return false;
  });
}

}  // namespace linkwash
