// The session's wiring: rule files for one run, settings and switches changed by another program,
// and the privacy stage its cleaners get.
#include "core/session/session.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/test_support.h"

namespace linkwash {
namespace {

constexpr const char* kRules =
    R"({"providers":{"example":{"urlPattern":"^https?://example\\.com","rules":["ref"]}}})";

class SessionTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& content) {
    const auto path = home_.path() / name;
    std::ofstream(path) << content;
    return path.string();
  }

  testing::TempHome home_;
};

TEST_F(SessionTest, RuleFilesForOneRunAreCheckedWhenTheSessionOpens) {
  const std::string rules = write("rules.json", kRules);
  const std::string notRules = write("other.json", R"({"rules":[]})");
  const std::string missing = (home_.path() / "missing.json").string();
  struct Case {
    std::optional<std::string> rules, supplementary;
    const char* error;
  };
  for (const Case& c :
       {Case{missing, {}, "cannot read"}, Case{notRules, {}, "not a provider file"},
        Case{rules, notRules, "not a provider file"}, Case{{}, rules, "needs a rule file"}}) {
    auto session = Session::open({c.rules, c.supplementary});
    ASSERT_FALSE(session) << c.error;
    EXPECT_NE(session.error().message.find(c.error), std::string::npos) << session.error().message;
  }

  auto session = Session::open({rules, std::nullopt});
  ASSERT_TRUE(session) << session.error().message;
  URLCleaner cleaner = (*session)->makeCleaner("test");
  EXPECT_EQ(cleaner.clean("https://example.com/?ref=x&id=1")->cleanedURL,
            "https://example.com/?id=1");
  EXPECT_FALSE(cleaner.clean("https://other.org/?ref=x")) << "only the given rules apply";
}

TEST_F(SessionTest, ChangesByAnotherProgramReachTheNextCleaner) {
  auto opened = Session::open({write("rules.json", kRules), std::nullopt});
  ASSERT_TRUE(opened);
  Session& session = **opened;
  const std::string link = "https://www.reddit.com/r/linux/?ref=x";

  // Another program: its own handle on the same stores.
  auto other = PreferenceStore::open(session.standardStore().path());
  ASSERT_TRUE(other);
  other->set(PrivacyRedirectSettings::kRedditRedirectEnabledKey, PreferenceValue{true});
  auto redirected = session.makeCleaner("test").clean(link);
  ASSERT_TRUE(redirected && redirected->privacyRedirect);
  EXPECT_EQ(redirected->privacyRedirect->service, PrivacyRedirectService::reddit);

  DomainExceptionStore(other).disable("reddit.com");
  session.reloadPersistedState();
  EXPECT_EQ(session.makeCleaner("test").cleanWithOutcome(link).kind,
            CleanOutcome::Kind::skippedDisabled);
}

}  // namespace
}  // namespace linkwash
