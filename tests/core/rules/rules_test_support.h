// Small pieces shared by the rules tests: an engine on a throw-away preference store, lookups by
// name, and a capture of the library's diagnostic lines.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/base/diagnostics.h"
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
    if (!data) return std::nullopt;
    return parseJson(toString(*data));
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

inline std::vector<std::string> providerNames(const RulesEngine& engine) {
  std::vector<std::string> names;
  for (const auto& provider : engine.compiledProviders()) names.push_back(provider.name);
  return names;
}

inline std::vector<std::string> providerNames(const std::vector<const CompiledProvider*>& list) {
  std::vector<std::string> names;
  for (const auto* provider : list) names.push_back(provider->name);
  return names;
}

inline std::optional<std::string> fallbackRuleID(const RulesEngine& engine, std::string_view name) {
  auto match = engine.shouldStripParamFallback(name);
  if (!match) return std::nullopt;
  return std::string(match->ruleID);
}

inline std::optional<std::string> stripRuleID(const RulesEngine& engine, std::string_view name,
                                              const CompiledProvider& provider) {
  auto id = engine.shouldStripParam(name, provider);
  if (!id) return std::nullopt;
  return std::string(*id);
}

// Collects diagnostic lines for its lifetime, then sends them to standard output again.
class DiagnosticCapture {
 public:
  DiagnosticCapture() {
    setDiagnosticSink([this](std::string_view line) { lines_.emplace_back(line); });
  }
  ~DiagnosticCapture() {
    setDiagnosticSink([](std::string_view line) {
      std::fwrite(line.data(), 1, line.size(), stdout);
      std::fputc('\n', stdout);
    });
  }
  DiagnosticCapture(const DiagnosticCapture&) = delete;
  DiagnosticCapture& operator=(const DiagnosticCapture&) = delete;

  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::vector<std::string> lines_;
};

}  // namespace linkwash::testing
