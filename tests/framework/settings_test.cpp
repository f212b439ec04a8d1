#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelvo/application.h"
#include "kelvo/data.h"
#include "kelvo/log.h"
#include "kelvo/settings.h"
#include "kelvo/url.h"

using namespace kelvo;

namespace {

// Points the global preferences directory at a fresh temp directory for each test and collects
// the warnings logged meanwhile.
class SettingsTest : public ::testing::Test {
protected:
  void SetUp() override {
    std::string pattern = "/tmp/kelvo_settings_test_XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    _root = Url::FromFile(pattern);
    _prefs = _root.Append("prefs");
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, _prefs);
    _oldSink = SetLogSink([this](LOGLEVEL level, const std::string& line) {
      std::lock_guard guard(_warningsLock);
      if (level == LOGLEVEL::WARNING) _warnings.push_back(line);
    });
    Settings::Reload();
  }
  void TearDown() override {
    SetLogSink(_oldSink);
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url());
    (void)_root.IoDelete(true);
  }
  std::vector<std::string> Warnings() {
    std::lock_guard guard(_warningsLock);
    return _warnings;
  }

  Url _root, _prefs;
  LogSink _oldSink;
  std::mutex _warningsLock;
  std::vector<std::string> _warnings;
};

DataDictionary Dict(std::initializer_list<std::pair<const char*, Data>> entries) {
  DataDictionary d;
  for (const auto& [k, v] : entries) d.SetData(k, v);
  return d;
}

} // namespace

TEST_F(SettingsTest, ValuesRoundTripThroughTheFile) {
  EXPECT_EQ(Settings::GetFileUrl(), _prefs.Append("settings.json"));
  EXPECT_TRUE(Settings::Get("missing").IsEmpty());
  const DataArray strings{Data("a"), Data("b c"), Data("ü")};
  const DataArray bools{Data(true), Data(false)};
  const DataArray dicts{Data(Dict({{"name", Data("x")}, {"size", Data(std::int64_t(3))}})),
                        Data(Dict({{"nested", Data(DataArray{Data(1.5)})}}))};
  const std::vector<std::pair<const char*, Data>> values{
      {"s", Data("text \"quoted\"\n")},
      {"b", Data(true)},
      {"i", Data(std::int64_t(-42))},
      {"big", Data(std::numeric_limits<std::int64_t>::max())},
      {"huge", Data(std::numeric_limits<std::uint64_t>::max())},
      {"f", Data(0.1)},
      {"whole", Data(2.0)},
      {"strings", Data(strings)},
      {"bools", Data(bools)},
      {"dicts", Data(dicts)},
      {"empty", Data(DataArray{})},
      {"dict", Data(Dict({{"k", Data(false)}}))},
  };
  for (const auto& [key, value] : values) ASSERT_TRUE(Settings::Set(key, value).HasValue()) << key;
  EXPECT_EQ(_prefs.IoDetect(), IODETECT::DIRECTORY);

  Settings::Reload();
  for (const auto& [key, value] : values) {
    SCOPED_TRACE(key);
    const Data read = Settings::Get(key);
    EXPECT_EQ(read.GetType(), value.GetType());
    EXPECT_EQ(read, value);
  }
  // Narrow integers come back as int64; an empty value removes the key.
  ASSERT_TRUE(Settings::Set("narrow", Data(std::int32_t(7))).HasValue());
  ASSERT_TRUE(Settings::Set("s", Data()).HasValue());
  Settings::Reload();
  EXPECT_EQ(Settings::Get("narrow"), Data(std::int64_t(7)));
  EXPECT_TRUE(Settings::Get("s").IsEmpty());
  EXPECT_EQ(Settings::Get("b"), Data(true));
  EXPECT_TRUE(Warnings().empty());
}

TEST_F(SettingsTest, RefusedValuesChangeNothing) {
  ASSERT_TRUE(Settings::Set("k", Data("kept")).HasValue());
  EXPECT_TRUE(Settings::Set("", Data(true)).GetError().Is(errors::illegalargument));
  EXPECT_TRUE(Settings::Set("k", Data(Url("file:///x"))).GetError().Is(errors::unsupportedargument));
  EXPECT_TRUE(Settings::Set("k", Data(Id("id"))).GetError().Is(errors::unsupportedargument));
  EXPECT_TRUE(Settings::Set("k", Data(DataArray{Data("ok"), Data(Blob{1, 2})})).GetError().Is(errors::unsupportedargument));
  EXPECT_TRUE(Settings::Set("k", Data(std::nan(""))).GetError().Is(errors::unsupportedargument));
  EXPECT_TRUE(Settings::Set("k", Data(std::string("\xff\xfe"))).GetError().Is(errors::unsupportedargument));
  EXPECT_EQ(Settings::Get("k"), Data("kept"));
  Settings::Reload();
  EXPECT_EQ(Settings::Get("k"), Data("kept"));

  // A failed write leaves memory as it was: the directory can't be made where a file is.
  ASSERT_TRUE(_root.Append("blocker").WriteAll("x").HasValue());
  Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, _root.Append("blocker/prefs"));
  EXPECT_TRUE(Settings::Set("k", Data("new")).GetError().Is(errors::io));
  EXPECT_TRUE(Settings::Get("k").IsEmpty());
}

TEST_F(SettingsTest, CorruptFileGivesAWarningAndEmptySettings) {
  ASSERT_TRUE(_prefs.IoCreateDirectory().HasValue());
  const Url file = Settings::GetFileUrl();
  for (const char* content : {"{\"a\": tru", "[1, 2]", "\x01\x02garbage"}) {
    SCOPED_TRACE(content);
    ASSERT_TRUE(file.WriteAll(content).HasValue());
    const auto before = Warnings().size();
    Settings::Reload();
    EXPECT_TRUE(Settings::Get("a").IsEmpty());
    EXPECT_EQ(Warnings().size(), before + 1);
  }
  // Entries of unsupported types are skipped one by one; the rest load.
  ASSERT_TRUE(file.WriteAll(R"({"a": null, "b": [1, null], "c": "ok"})").HasValue());
  Settings::Reload();
  EXPECT_TRUE(Settings::Get("a").IsEmpty());
  EXPECT_TRUE(Settings::Get("b").IsEmpty());
  EXPECT_EQ(Settings::Get("c"), Data("ok"));
  // Writing replaces the bad file with a good one.
  ASSERT_TRUE(file.WriteAll("not json").HasValue());
  Settings::Reload();
  ASSERT_TRUE(Settings::Set("a", Data(std::int64_t(1))).HasValue());
  Settings::Reload();
  EXPECT_EQ(Settings::Get("a"), Data(std::int64_t(1)));
}

TEST_F(SettingsTest, FollowsTheDirectoryAndConcurrentWriters) {
  ASSERT_TRUE(Settings::Set("where", Data("first")).HasValue());
  const Url other = _root.Append("other");
  const char* old = std::getenv("KELVO_GLOBALPREFS_DIR");
  const std::string oldValue = old ? old : "";
  // The environment applies once the host's override is removed.
  Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url());
  ::setenv("KELVO_GLOBALPREFS_DIR", other.GetPath().c_str(), 1);
  EXPECT_TRUE(Settings::Get("where").IsEmpty());
  ASSERT_TRUE(Settings::Set("where", Data("second")).HasValue());
  if (old)
    ::setenv("KELVO_GLOBALPREFS_DIR", oldValue.c_str(), 1);
  else
    ::unsetenv("KELVO_GLOBALPREFS_DIR");
  Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, _prefs);
  EXPECT_EQ(Settings::Get("where"), Data("first"));

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 10; ++i) {
        const std::string key = "t" + std::to_string(t) + "_" + std::to_string(i);
        EXPECT_TRUE(Settings::Set(key, Data(std::int64_t(i))).HasValue());
        EXPECT_EQ(Settings::Get(key), Data(std::int64_t(i)));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  Settings::Reload();
  for (int t = 0; t < 4; ++t)
    for (int i = 0; i < 10; ++i)
      EXPECT_EQ(Settings::Get("t" + std::to_string(t) + "_" + std::to_string(i)), Data(std::int64_t(i)));
}
