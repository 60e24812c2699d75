// Small pieces shared by the rules tests: an engine on a throw-away preference store and lookups
// by name.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/rules/rules_engine.h"
#include "platform/json/json_writer.h"
#include "platform/prefs/preference_store.h"
#include "tests/support/test_support.h"

namespace linkwash::testing {

// An isolated home with one preference store in it; engines made from it share the store, as
// the owner's engines do across launches.
class RulesHome {
 public:
  RulesHome() : store_(PreferenceStore::open(home_.path() / "rules.sqlite3")) {}

  const std::shared_ptr<PreferenceStore>& store() const { return store_; }

  std::unique_ptr<RulesEngine> engine(std::string_view providers) const {
    auto made = std::make_unique<RulesEngine>(store_);
    made->load(providers);
    return made;
  }

  std::optional<Json> storedJson(std::string_view key) const {
    auto data = store_->dataForKey(key);
    return data ? parseJson(toString(*data)) : std::nullopt;
  }

  void storeJson(std::string_view key, std::string_view json) const {
    ASSERT_TRUE(store_->set(key, toBytes(json)));
  }

 private:
  TempHome home_;
  std::shared_ptr<PreferenceStore> store_;
};

inline const CompiledProvider* providerNamed(const RulesEngine& engine, std::string_view name) {
  for (const auto& provider : engine.compiledProviders()) {
    if (provider.name == name) return &provider;
  }
  return nullptr;
}

// The catalog entry with this ID; a failure, and a scratch entry, when there is none.
inline RuleEntry& entry(const RulesEngine& engine, std::string_view id) {
  static RuleEntry missing;
  RuleEntry* found = engine.findEntry(id);
  EXPECT_NE(found, nullptr) << id;
  return found != nullptr ? *found : missing;
}

inline std::vector<std::string> providerNames(const RulesEngine& engine) {
  std::vector<std::string> names;
  for (const auto& provider : engine.compiledProviders()) names.push_back(provider.name);
  return names;
}

inline std::optional<std::string> fallbackRuleID(const RulesEngine& engine, std::string_view name) {
  auto match = engine.shouldStripParamFallback(name);
  return match ? std::optional<std::string>(match->ruleID) : std::nullopt;
}

inline std::optional<std::string> stripRuleID(const RulesEngine& engine, std::string_view name,
                                              const CompiledProvider& provider) {
  auto id = engine.shouldStripParam(name, provider);
  return id ? std::optional<std::string>(*id) : std::nullopt;
}

}  // namespace linkwash::testing
