#include "tools/status_format.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

Json::Value Sample() {
  Json::Value status;
  EXPECT_TRUE(fromString(
      R"({"version":"0.1.0","pid":42,"uptime_seconds":7,
          "run_status_at_start":"recovery","log_level":"error",
          "monitor_queues":2,
          "backend":{"name":"fanotify","paired_renames":true},
          "volumes":[{"id":1,"mount_point":"/vol1","watched_shares":["/vol1/A"],
                      "backend":"fanotify","events_read":10,"events_injected":1,
                      "events_queued":3,"lines_written":9,"kernel_overflows":0,
                      "rescan_lines":1}],
          "queue_files":[{"path":"/q/a \"b\"\\c","lines_written":9,"lines_kept":2,
                          "state":"busy","last_error":"Resource temporarily unavailable",
                          "last_error_time":1700000000,"bytes":52428800,
                          "limit_used":0.5,"oldest_line_age":75}]})",
      status));
  return status;
}

TEST(StatusFormatTest, PrometheusOutputFollowsTheExpositionFormat) {
  const std::string text = StatusPrometheus(Sample());
  const std::regex help(R"(# HELP (yulotifyd_[a-z_]+) .+)");
  const std::regex type(R"(# TYPE (yulotifyd_[a-z_]+) (counter|gauge))");
  const std::regex sample(
      R"((yulotifyd_[a-z_]+)(\{([a-z_]+="([^"\\\n]|\\\\|\\"|\\n)*",?)*\})? [0-9][0-9.e+-]*)");
  std::istringstream in(text);
  std::string line, family;
  std::set<std::string> typed;
  int samples = 0;
  while (std::getline(in, line)) {
    std::smatch m;
    if (std::regex_match(line, m, help)) {
      family = m[1];
    } else if (std::regex_match(line, m, type)) {
      EXPECT_EQ(m[1], family) << "TYPE right after its HELP";
      EXPECT_TRUE(typed.insert(family).second) << "one TYPE per family";
      if (m[2] == "counter") {
        EXPECT_EQ(family.substr(family.size() - 6), "_total") << family;
      }
    } else {
      ASSERT_TRUE(std::regex_match(line, m, sample)) << line;
      EXPECT_EQ(m[1], family) << "samples follow their family";
      ++samples;
    }
  }
  EXPECT_GT(samples, 10);
  EXPECT_NE(text.find("yulotifyd_events_read_total{volume=\"1\","
                      "mount_point=\"/vol1\"} 10\n"),
            std::string::npos);
  EXPECT_NE(text.find("yulotifyd_queue_file_lines_kept{path=\"/q/a \\\"b\\\"\\\\c\"} 2\n"),
            std::string::npos);
  EXPECT_NE(text.find("state=\"busy\"} 1\n"), std::string::npos);
  EXPECT_NE(text.find("state=\"ok\"} 0\n"), std::string::npos);
  EXPECT_EQ(0u, text.find(StatusPrometheusUp(true))) << "up comes first";
  EXPECT_NE(text.find("yulotifyd_up 1\n"), std::string::npos);
  EXPECT_NE(text.find("yulotifyd_queue_file_bytes{path=\"/q/a \\\"b\\\"\\\\c\"} "
                      "52428800\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("yulotifyd_queue_file_limit_used_ratio{path=\"/q/a \\\"b\\\"\\\\c\"} "
                      "0.5\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("yulotifyd_queue_file_oldest_line_age_seconds{path=\"/q/a "
                      "\\\"b\\\"\\\\c\"} 75\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(StatusPrometheusUp(false).find("yulotifyd_up 0\n") !=
                std::string::npos,
            true);
}

TEST(StatusFormatTest, ProblemsAreFailingKeptOrNearlyFullFiles) {
  Json::Value status = Sample();
  // Busy and keeping two lines: a problem.
  EXPECT_EQ(1u, StatusProblems(status).size());
  Json::Value& f = status["queue_files"][0];
  f["state"] = "ok";
  f["lines_kept"] = 0;
  EXPECT_TRUE(StatusProblems(status).empty());
  f["limit_used"] = 0.81;
  ASSERT_EQ(1u, StatusProblems(status).size());
  EXPECT_NE(StatusProblems(status)[0].find("81%"), std::string::npos);
  f["limit_used"] = 0.1;
  f["state"] = "failing";
  f["last_error"] = "No space left on device";
  ASSERT_EQ(1u, StatusProblems(status).size());
  EXPECT_NE(StatusProblems(status)[0].find("No space left on device"),
            std::string::npos);
  status["queue_files"] = Json::Value(Json::arrayValue);
  EXPECT_TRUE(StatusProblems(status).empty());
}

TEST(StatusFormatTest, TableShowsVolumesAndFailingFiles) {
  const std::string text = StatusTable(Sample());
  EXPECT_NE(text.find("pid 42"), std::string::npos) << text;
  EXPECT_NE(text.find("fanotify (renames paired)"), std::string::npos) << text;
  EXPECT_NE(text.find("/vol1/A"), std::string::npos) << text;
  EXPECT_NE(text.find("busy"), std::string::npos) << text;
  EXPECT_NE(text.find("52428800    50%    75s"), std::string::npos) << text;
  EXPECT_NE(text.find("2023-11-14T22:13:20Z: Resource temporarily unavailable"),
            std::string::npos)
      << text;
}

TEST(StatusFormatTest, TableEscapesTextsFromUsers) {
  Json::Value status = Sample();
  status["queue_files"][0]["path"] = "/home/u/q\n\x1b]0;owned\x07";
  status["queue_files"][0]["last_error"] = "bad\rname";
  status["volumes"][0]["watched_shares"][0] = "/vol1/\x1b[2J";
  const std::string text = StatusTable(status);
  EXPECT_EQ(std::string::npos, text.find('\x1b')) << text;
  EXPECT_EQ(std::string::npos, text.find('\r')) << text;
  EXPECT_NE(std::string::npos,
            text.find("/home/u/q\\x0a\\x1b]0;owned\\x07\n"))
      << text;
  EXPECT_NE(std::string::npos, text.find("bad\\x0dname")) << text;
  EXPECT_NE(std::string::npos, text.find("/vol1/\\x1b[2J")) << text;
}

// Sample() with its volume not watched: the kernel refused its share.
Json::Value FailedVolume() {
  Json::Value status = Sample();
  Json::Value& v = status["volumes"][0];
  v["watched_shares"] = Json::Value(Json::arrayValue);
  v["watch_state"] = "failed";
  v["watch_error"] = "Operation not supported";
  v["refused_shares"] = Json::Value(Json::arrayValue);
  v["refused_shares"].append("/vol1/A");
  status["queue_files"] = Json::Value(Json::arrayValue);
  return status;
}

TEST(StatusFormatTest, AVolumeNotWatchedIsAProblem) {
  Json::Value status = FailedVolume();
  const std::vector<std::string> problems = StatusProblems(status);
  ASSERT_EQ(1u, problems.size());
  EXPECT_EQ("volume /vol1 is not watched: the kernel refused the watch of "
            "/vol1/A: Operation not supported",
            problems[0]);
  status["volumes"][0]["watch_state"] = "ok";
  EXPECT_TRUE(StatusProblems(status).empty());
  // A daemon that does not tell the state is taken as watching.
  status["volumes"][0].removeMember("watch_state");
  EXPECT_TRUE(StatusProblems(status).empty());
}

TEST(StatusFormatTest, TableAndPrometheusShowAVolumeNotWatched) {
  const std::string text = StatusTable(FailedVolume());
  EXPECT_NE(text.find("(none watched)\n        not watched, refused by the "
                      "kernel: Operation not supported: /vol1/A\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(std::string::npos, StatusTable(Sample()).find("not watched"));
  const std::string labels = "{volume=\"1\",mount_point=\"/vol1\"}";
  EXPECT_NE(StatusPrometheus(FailedVolume())
                .find("yulotifyd_volume_watch_failed" + labels + " 1\n"),
            std::string::npos);
  EXPECT_NE(StatusPrometheus(Sample())
                .find("yulotifyd_volume_watch_failed" + labels + " 0\n"),
            std::string::npos);
}

TEST(StatusFormatTest, LabelEscapes) {
  EXPECT_EQ(PrometheusLabel("a\\b\"c\nd"), "a\\\\b\\\"c\\nd");
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
