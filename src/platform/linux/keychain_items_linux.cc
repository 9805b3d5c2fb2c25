// Keychain items as Secret Service items, through libsecret.
//
// Every call runs libsecret's asynchronous operations on a main context of its own, pushed as
// the calling thread's default for the call, and iterates it until the operation finishes or
// the call's deadline passes; then the operation is cancelled, which makes GDBus complete it
// at once. So a service that hangs costs the caller the timeout and nothing more, and no
// thread of ours waits on the bus.
//
// The session bus connection is shared with the rest of the process; GLib would end the
// process when the bus goes away, so calls turn that off, and a closed connection makes the
// next call connect afresh.
#include <libsecret/secret.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/keychain_items.h"
#include "platform/utf8.h"

namespace kp::platform {
namespace {

namespace attr = keychain_attribute;
using Clock = std::chrono::steady_clock;

constexpr std::string_view kIdentity[] = {attr::kClass, attr::kAccount, attr::kService, attr::kAccessGroup,
                                          attr::kSynchronizable};

// Items this library writes carry this schema name; lookups ignore it, so that items other
// programs wrote with the same attributes are found too.
const SecretSchema* schema() {
  static const SecretSchema kSchema = {"com.kp.KPFrameworkCoreLogic.GenericPassword",
                                       SECRET_SCHEMA_DONT_MATCH_NAME,
                                       {
                                           {"class", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                           {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                           {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                           {"accessGroup", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                           {"synchronizable", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                           {"accessible", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                           {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
                                       },
                                       0,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr};
  return &kSchema;
}

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <class T>
using Ref = std::unique_ptr<T, ObjectUnref>;

struct ErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

struct TableUnref {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using Table = std::unique_ptr<GHashTable, TableUnref>;

struct ValueUnref {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
using SecretValuePtr = std::unique_ptr<SecretValue, ValueUnref>;

// The items of one search, each with its attributes.
struct Found {
  Ref<SecretItem> item;
  KeychainAttributes attributes;
  bool locked = false;
  std::uint64_t modified = 0;
};

Table toTable(const KeychainAttributes& attributes) {
  Table table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
  for (const auto& [name, value] : attributes) {
    g_hash_table_insert(table.get(), g_strdup(name.c_str()), g_strdup(value.c_str()));
  }
  return table;
}

KeychainAttributes fromTable(GHashTable* table) {
  KeychainAttributes out;
  if (!table) return out;
  GHashTableIter it;
  gpointer key = nullptr;
  gpointer value = nullptr;
  g_hash_table_iter_init(&it, table);
  while (g_hash_table_iter_next(&it, &key, &value)) {
    out.emplace(static_cast<const char*>(key), static_cast<const char*>(value));
  }
  return out;
}

// D-Bus strings are UTF-8 without NUL.
bool carriable(const KeychainAttributes& attributes) {
  return std::all_of(attributes.begin(), attributes.end(), [](const auto& entry) {
    const auto ok = [](const std::string& s) { return s.find('\0') == std::string::npos && internal::isValidUtf8(s); };
    return ok(entry.first) && ok(entry.second);
  });
}

std::optional<std::string> attribute(const KeychainAttributes& attributes, std::string_view name) {
  auto it = attributes.find(name);
  if (it == attributes.end()) return std::nullopt;
  return it->second;
}

bool sameIdentity(const KeychainAttributes& a, const KeychainAttributes& b) {
  return std::all_of(std::begin(kIdentity), std::end(kIdentity),
                     [&](std::string_view name) { return attribute(a, name) == attribute(b, name); });
}

// One keychain call: the deadline and the main context its operations run on.
class Call {
 public:
  explicit Call(std::chrono::milliseconds timeout) : deadline_(Clock::now() + timeout), context_(g_main_context_new()) {
    g_main_context_push_thread_default(context_);
  }
  ~Call() {
    g_main_context_pop_thread_default(context_);
    g_main_context_unref(context_);
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // Starts an operation with `start(cancellable, callback, data)` and waits for its result;
  // null when the deadline passed first.
  template <class Start>
  Ref<GAsyncResult> run(Start&& start) {
    if (Clock::now() >= deadline_) return nullptr;
    // The completion may outlive this frame if the operation ignored cancellation; it then
    // finds its state on the heap.
    struct State {
      GAsyncResult* result = nullptr;
      bool done = false;
    };
    auto state = std::make_shared<State>();
    Ref<GCancellable> cancellable(g_cancellable_new());
    auto* holder = new std::shared_ptr<State>(state);
    std::forward<Start>(start)(
        cancellable.get(),
        +[](GObject*, GAsyncResult* result, gpointer data) {
          std::unique_ptr<std::shared_ptr<State>> owner(static_cast<std::shared_ptr<State>*>(data));
          (*owner)->result = G_ASYNC_RESULT(g_object_ref(result));
          (*owner)->done = true;
        },
        holder);
    // Wakes the loop now and then so that the deadline is seen even when nothing happens.
    GSource* tick = g_timeout_source_new(20);
    g_source_set_callback(
        tick, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    g_source_attach(tick, context_);
    bool cancelled = false;
    while (!state->done) {
      const auto now = Clock::now();
      if (!cancelled && now >= deadline_) {
        g_cancellable_cancel(cancellable.get());
        cancelled = true;
      }
      // An operation that does not end even when cancelled is abandoned.
      if (cancelled && now >= deadline_ + std::chrono::seconds(1)) break;
      g_main_context_iteration(context_, TRUE);
    }
    g_source_destroy(tick);
    g_source_unref(tick);
    if (!state->done || cancelled) {
      if (state->result) g_object_unref(std::exchange(state->result, nullptr));
      return nullptr;
    }
    return Ref<GAsyncResult>(std::exchange(state->result, nullptr));
  }

 private:
  Clock::time_point deadline_;
  GMainContext* context_;
};

// Lets a failed call connect afresh next time when the bus connection is gone.
void forgetClosedConnection(const GError* error) {
  if (!error) return;
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED) ||
      g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_DISCONNECTED) ||
      g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NO_SERVER)) {
    secret_service_disconnect();
  }
}

class SecretServiceItems final : public KeychainItems {
 public:
  explicit SecretServiceItems(std::chrono::milliseconds timeout) : timeout_(timeout) {}

  KeychainStatus add(const KeychainAttributes& attributes, std::span<const std::uint8_t> data) override {
    if (!carriable(attributes)) return KeychainStatus::invalidParameter;
    Call call(timeout_);
    Ref<SecretService> service = connect(call);
    if (!service) return KeychainStatus::notAvailable;
    KeychainAttributes identity;
    for (std::string_view name : kIdentity) {
      if (auto value = attribute(attributes, name)) identity.emplace(name, *value);
    }
    std::optional<std::vector<Found>> existing = search(call, service.get(), identity, false);
    if (!existing) return KeychainStatus::notAvailable;
    for (const Found& found : *existing) {
      if (sameIdentity(found.attributes, attributes)) return KeychainStatus::duplicateItem;
    }
    Ref<SecretCollection> collection = defaultCollection(call, service.get());
    if (!collection) return KeychainStatus::notAvailable;
    if (secret_collection_get_locked(collection.get())) return KeychainStatus::interactionNotAllowed;
    SecretValuePtr value = secretValue(data);
    Table table = toTable(attributes);
    const std::string label = attribute(attributes, attr::kAccount).value_or("");
    // Replacing an item with exactly these attributes makes adds of the same item that race
    // ours (each found nothing before) end as one item, inside the service.
    Ref<GAsyncResult> result = call.run([&](GCancellable* cancel, GAsyncReadyCallback done, gpointer userData) {
      secret_item_create(collection.get(), schema(), table.get(), label.c_str(), value.get(),
                         SECRET_ITEM_CREATE_REPLACE, cancel, done, userData);
    });
    if (!result) return KeychainStatus::notAvailable;
    GError* raw = nullptr;
    Ref<SecretItem> item(secret_item_create_finish(result.get(), &raw));
    ErrorPtr error(raw);
    forgetClosedConnection(error.get());
    if (!item) return KeychainStatus::notAvailable;
    return keepOne(call, service.get(), identity, item.get());
  }

  KeychainStatus update(const KeychainAttributes& query, std::span<const std::uint8_t> data,
                        const KeychainAttributes& changes) override {
    if (!carriable(changes)) return KeychainStatus::invalidParameter;
    Call call(timeout_);
    std::vector<Found> items;
    if (auto failure = lookUp(call, query, false, items)) return *failure;
    SecretValuePtr value = secretValue(data);
    bool updated = false;
    for (Found& found : items) {
      if (found.locked) continue;
      SecretItem* item = found.item.get();
      const bool stored = onItem(
          call, item,
          [&](GCancellable* cancel, GAsyncReadyCallback done, gpointer userData) {
            secret_item_set_secret(item, value.get(), cancel, done, userData);
          },
          secret_item_set_secret_finish);
      if (!stored) return KeychainStatus::notAvailable;
      KeychainAttributes merged = found.attributes;
      for (const auto& [name, change] : changes) merged.insert_or_assign(name, change);
      if (merged != found.attributes) {
        Table table = toTable(merged);
        const bool changed = onItem(
            call, item,
            [&](GCancellable* cancel, GAsyncReadyCallback done, gpointer userData) {
              secret_item_set_attributes(item, nullptr, table.get(), cancel, done, userData);
            },
            secret_item_set_attributes_finish);
        if (!changed) return KeychainStatus::notAvailable;
      }
      updated = true;
    }
    return updated ? KeychainStatus::success : KeychainStatus::interactionNotAllowed;
  }

  KeychainStatus copyMatching(const KeychainAttributes& query, Data* data) override {
    Call call(timeout_);
    std::vector<Found> items;
    if (auto failure = lookUp(call, query, true, items)) return *failure;
    // Unlocked first, then the item that is exactly what the query names (no attributes of
    // identity beyond it), then the newest.
    auto rank = [&](const Found& f) {
      return std::make_tuple(!f.locked, sameIdentity(f.attributes, query), f.modified);
    };
    const Found& best = *std::max_element(items.begin(), items.end(),
                                          [&](const Found& a, const Found& b) { return rank(a) < rank(b); });
    if (best.locked) return KeychainStatus::interactionNotAllowed;
    SecretValuePtr value(secret_item_get_secret(best.item.get()));
    if (!value) return KeychainStatus::notAvailable;
    gsize length = 0;
    const gchar* bytes = secret_value_get(value.get(), &length);
    if (data) *data = Data(bytes, length);
    return KeychainStatus::success;
  }

  KeychainStatus deleteItems(const KeychainAttributes& query) override {
    Call call(timeout_);
    std::vector<Found> items;
    if (auto failure = lookUp(call, query, false, items)) return *failure;
    bool deleted = false;
    for (Found& found : items) {
      if (found.locked) continue;
      SecretItem* item = found.item.get();
      const bool gone = onItem(
          call, item,
          [&](GCancellable* cancel, GAsyncReadyCallback done, gpointer userData) {
            secret_item_delete(item, cancel, done, userData);
          },
          secret_item_delete_finish);
      if (!gone) return KeychainStatus::notAvailable;
      deleted = true;
    }
    return deleted ? KeychainStatus::success : KeychainStatus::interactionNotAllowed;
  }

 private:
  static SecretValuePtr secretValue(std::span<const std::uint8_t> data) {
    return SecretValuePtr(secret_value_new(reinterpret_cast<const gchar*>(data.data()),
                                           static_cast<gssize>(data.size()), "application/octet-stream"));
  }

  // The items matching `query`; the status to answer with when there are none or the service
  // cannot be asked.
  std::optional<KeychainStatus> lookUp(Call& call, const KeychainAttributes& query, bool loadSecrets,
                                       std::vector<Found>& items) {
    if (!carriable(query)) return KeychainStatus::invalidParameter;
    Ref<SecretService> service = connect(call);
    if (!service) return KeychainStatus::notAvailable;
    std::optional<std::vector<Found>> found = search(call, service.get(), query, loadSecrets);
    if (!found) return KeychainStatus::notAvailable;
    if (found->empty()) return KeychainStatus::itemNotFound;
    items = std::move(*found);
    return std::nullopt;
  }

  // Racing adds that differ in other attributes (the accessibility) each made an item of the
  // same identity. Every adder keeps the same one, the oldest (then by object path), and
  // deletes the others; an adder whose item went answers duplicateItem, so that its value
  // reaches the kept item as an update.
  static KeychainStatus keepOne(Call& call, SecretService* service, const KeychainAttributes& identity,
                                SecretItem* ours) {
    std::optional<std::vector<Found>> same = search(call, service, identity, false);
    if (!same) return KeychainStatus::success;  // ours is there; the next add of the key tidies up
    std::erase_if(*same, [&](const Found& f) { return !sameIdentity(f.attributes, identity); });
    if (same->size() < 2) return KeychainStatus::success;
    auto order = [](const Found& f) {
      return std::make_pair(secret_item_get_created(f.item.get()), std::string(pathOf(f.item.get())));
    };
    const Found& kept = *std::min_element(same->begin(), same->end(),
                                          [&](const Found& a, const Found& b) { return order(a) < order(b); });
    const std::string keptPath(pathOf(kept.item.get()));
    for (Found& found : *same) {
      if (found.locked || pathOf(found.item.get()) == keptPath) continue;
      SecretItem* item = found.item.get();
      (void)onItem(
          call, item,
          [&](GCancellable* cancel, GAsyncReadyCallback done, gpointer userData) {
            secret_item_delete(item, cancel, done, userData);
          },
          secret_item_delete_finish);
    }
    return keptPath == pathOf(ours) ? KeychainStatus::success : KeychainStatus::duplicateItem;
  }

  static std::string_view pathOf(SecretItem* item) {
    const char* path = g_dbus_proxy_get_object_path(G_DBUS_PROXY(item));
    return path ? path : "";
  }

  // Runs one operation on `item` and tells whether it succeeded.
  template <class Start, class Finish>
  static bool onItem(Call& call, SecretItem* item, Start&& start, Finish finish) {
    Ref<GAsyncResult> result = call.run(std::forward<Start>(start));
    return result && finished(finish, item, result.get());
  }

  template <class Finish>
  static bool finished(Finish finish, SecretItem* item, GAsyncResult* result) {
    GError* raw = nullptr;
    const bool ok = finish(item, result, &raw) != FALSE;
    ErrorPtr error(raw);
    forgetClosedConnection(error.get());
    return ok;
  }

  Ref<SecretService> connect(Call& call) {
    // The shared session bus would end the process when the bus closes; a library must not.
    Ref<GAsyncResult> busResult = call.run([](GCancellable* cancel, GAsyncReadyCallback done, gpointer userData) {
      g_bus_get(G_BUS_TYPE_SESSION, cancel, done, userData);
    });
    if (!busResult) return nullptr;
    GError* raw = nullptr;
    Ref<GDBusConnection> bus(g_bus_get_finish(busResult.get(), &raw));
    ErrorPtr busError(raw);
    if (!bus) return nullptr;
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);

    Ref<GAsyncResult> result = call.run([](GCancellable* cancel, GAsyncReadyCallback done, gpointer userData) {
      secret_service_get(SECRET_SERVICE_OPEN_SESSION, cancel, done, userData);
    });
    if (!result) return nullptr;
    raw = nullptr;
    Ref<SecretService> service(secret_service_get_finish(result.get(), &raw));
    ErrorPtr error(raw);
    forgetClosedConnection(error.get());
    return service;
  }

  static Ref<SecretCollection> defaultCollection(Call& call, SecretService* service) {
    Ref<GAsyncResult> result = call.run([&](GCancellable* cancel, GAsyncReadyCallback done, gpointer userData) {
      secret_collection_for_alias(service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, cancel, done, userData);
    });
    if (!result) return nullptr;
    GError* raw = nullptr;
    Ref<SecretCollection> collection(secret_collection_for_alias_finish(result.get(), &raw));
    ErrorPtr error(raw);
    forgetClosedConnection(error.get());
    return collection;
  }

  // Every item matching `query`, locked ones included but never unlocked; nothing when the
  // search failed.
  static std::optional<std::vector<Found>> search(Call& call, SecretService* service, const KeychainAttributes& query,
                                                  bool loadSecrets) {
    Table table = toTable(query);
    const auto flags =
        static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | (loadSecrets ? SECRET_SEARCH_LOAD_SECRETS : 0));
    Ref<GAsyncResult> result = call.run([&](GCancellable* cancel, GAsyncReadyCallback done, gpointer userData) {
      secret_service_search(service, nullptr, table.get(), flags, cancel, done, userData);
    });
    if (!result) return std::nullopt;
    GError* raw = nullptr;
    GList* list = secret_service_search_finish(service, result.get(), &raw);
    ErrorPtr error(raw);
    if (error) {
      forgetClosedConnection(error.get());
      g_list_free_full(list, g_object_unref);
      return std::nullopt;
    }
    std::vector<Found> out;
    for (GList* node = list; node != nullptr; node = node->next) {
      auto* item = static_cast<SecretItem*>(node->data);
      Found found;
      GHashTable* attributes = secret_item_get_attributes(item);
      found.attributes = fromTable(attributes);
      if (attributes) g_hash_table_unref(attributes);
      found.locked = secret_item_get_locked(item) != FALSE;
      found.modified = secret_item_get_modified(item);
      found.item.reset(item);  // takes the list's reference
      out.push_back(std::move(found));
    }
    g_list_free(list);
    return out;
  }

  std::chrono::milliseconds timeout_;
};

}  // namespace

std::shared_ptr<KeychainItems> KeychainItems::system(std::chrono::milliseconds timeout) {
  return std::make_shared<SecretServiceItems>(timeout);
}

}  // namespace kp::platform
