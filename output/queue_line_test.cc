#include "output/queue_line.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"
#include "notify/notify_event.h"
#include "output/testing/fake_event_source.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/queue_path.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::ParseLine;
using testing::ReadFileText;
using testing::TempDir;
using testing::WriteFileText;

// --- Queue event codes -----------------------------------------------------

TEST(QueueEventCodeTest, EveryKernelBitAlone) {
  EXPECT_EQ(QueueEventCode(YULO_ACCESS), 1u);
  EXPECT_EQ(QueueEventCode(YULO_MODIFY), 2u);
  EXPECT_EQ(QueueEventCode(YULO_ATTRIB), 4u);
  EXPECT_EQ(QueueEventCode(YULO_CLOSE_WRITE), 8u);
  EXPECT_EQ(QueueEventCode(YULO_CLOSE_NOWRITE), 16u);
  EXPECT_EQ(QueueEventCode(YULO_OPEN), 32u);
  EXPECT_EQ(QueueEventCode(YULO_MOVE_FROM), 128u);
  EXPECT_EQ(QueueEventCode(YULO_MOVE_TO), 64u);
  EXPECT_EQ(QueueEventCode(YULO_CREATE), 64u);
  EXPECT_EQ(QueueEventCode(YULO_DELETE), 128u);
  EXPECT_EQ(QueueEventCode(YULO_RESCAN), 512u);
  EXPECT_EQ(QueueEventCode(YULO_Q_OVERFLOW), 0u);
  EXPECT_EQ(QueueEventCode(YULO_ISDIR), 0u);
  EXPECT_EQ(QueueEventCode(0), 0u);
}

TEST(QueueEventCodeTest, UnnamedBitsAreDropped) {
  for (uint32_t bit : {0x800u, 0x1000u, 0x2000u, 0x8000u, 0x10000u,
                       0x80000000u, 0x20000000u}) {
    EXPECT_EQ(QueueEventCode(bit), 0u) << std::hex << bit;
  }
}

TEST(QueueEventCodeTest, EverySingleBitOfTheMask) {
  // The whole 32-bit space, bit by bit: only the documented bits produce a
  // code, and none of them produces 256 or 1024.
  for (int i = 0; i < 32; ++i) {
    const uint32_t bit = 1u << i;
    const uint32_t code = QueueEventCode(bit);
    if (bit <= 0x20) {
      EXPECT_EQ(code, bit);
    } else if (bit == YULO_MOVE_TO || bit == YULO_CREATE) {
      EXPECT_EQ(code, 64u);
    } else if (bit == YULO_MOVE_FROM || bit == YULO_DELETE) {
      EXPECT_EQ(code, 128u);
    } else if (bit == YULO_RESCAN) {
      EXPECT_EQ(code, 512u);
    } else {
      EXPECT_EQ(code, 0u) << "bit " << i;
    }
  }
}

TEST(QueueEventCodeTest, CombinationsAddUp) {
  EXPECT_EQ(QueueEventCode(YULO_CREATE | YULO_ISDIR), 64u);
  EXPECT_EQ(QueueEventCode(YULO_DELETE | YULO_ISDIR), 128u);
  EXPECT_EQ(QueueEventCode(YULO_MODIFY | YULO_CLOSE_WRITE), 10u);
  EXPECT_EQ(QueueEventCode(0x3F), 63u);
  // Create and move-to together still add 64 once; likewise 128.
  EXPECT_EQ(QueueEventCode(YULO_CREATE | YULO_MOVE_TO), 64u);
  EXPECT_EQ(QueueEventCode(YULO_DELETE | YULO_MOVE_FROM), 128u);
  EXPECT_EQ(QueueEventCode(YULO_RESCAN | YULO_DELETE), 640u);
  EXPECT_EQ(QueueEventCode(YULO_CREATE | YULO_DELETE), 192u);
  EXPECT_EQ(QueueEventCode(0xFFFFFFFFu), 63u + 64u + 128u + 512u);
}

// --- UTF-8 and quoting -----------------------------------------------------

TEST(QueueLineTest, Utf8Validity) {
  EXPECT_TRUE(IsValidUtf8(""));
  EXPECT_TRUE(IsValidUtf8("plain /path"));
  EXPECT_TRUE(IsValidUtf8("\xc3\xa9"));          // é
  EXPECT_TRUE(IsValidUtf8("\xe2\x82\xac"));      // €
  EXPECT_TRUE(IsValidUtf8("\xf0\x9f\x98\x80"));  // U+1F600
  EXPECT_TRUE(IsValidUtf8("\xf4\x8f\xbf\xbf"));  // U+10FFFF
  EXPECT_TRUE(IsValidUtf8("\xef\xbf\xbe"));      // U+FFFE, a noncharacter
  EXPECT_FALSE(IsValidUtf8("\xff"));
  EXPECT_FALSE(IsValidUtf8("\x80"));
  EXPECT_FALSE(IsValidUtf8("\xc3"));              // truncated
  EXPECT_FALSE(IsValidUtf8("\xc3x"));             // bad continuation
  EXPECT_FALSE(IsValidUtf8("\xc0\xaf"));          // overlong "/"
  EXPECT_FALSE(IsValidUtf8("\xe0\x80\xaf"));      // overlong
  EXPECT_FALSE(IsValidUtf8("\xed\xa0\x80"));      // surrogate U+D800
  EXPECT_FALSE(IsValidUtf8("\xed\xb3\xbf"));      // surrogate U+DCFF
  EXPECT_FALSE(IsValidUtf8("\xf4\x90\x80\x80"));  // above U+10FFFF
  EXPECT_FALSE(IsValidUtf8("\xf5\x80\x80\x80"));
  EXPECT_FALSE(IsValidUtf8("\xf0\x9f\x98"));      // truncated 4-byte
}

TEST(QueueLineTest, QuotingOfSpecialCharacters) {
  EXPECT_EQ(QuoteQueueString("a b\"c\\d/e"), "\"a b\\\"c\\\\d/e\"");
  EXPECT_EQ(QuoteQueueString("\b\f\n\r\t\x01\x1f\x7f"),
            "\"\\b\\f\\n\\r\\t\\u0001\\u001f\x7f\"");
  EXPECT_EQ(QuoteQueueString("\xc3\xa9"), "\"\\u00e9\"");
  EXPECT_EQ(QuoteQueueString("\xf0\x9f\x98\x80"), "\"\\ud83d\\ude00\"");
  EXPECT_EQ(QuoteQueueString("bad\xff\xfe" "end"),
            "\"bad\\udcff\\udcfeend\"");
  // A surrogate encoded in UTF-8 form is three invalid bytes.
  EXPECT_EQ(QuoteQueueString("\xed\xa0\x80"), "\"\\udced\\udca0\\udc80\"");
  // A truncated sequence before a valid character: only the lead escapes.
  EXPECT_EQ(QuoteQueueString("\xc3" "a\xc3\xa9"), "\"\\udcc3a\\u00e9\"");
}

// Random strings drawn from code points of every UTF-8 length.
std::string RandomValidUtf8(std::mt19937& rng) {
  std::uniform_int_distribution<int> length(0, 12);
  std::uniform_int_distribution<int> kind(0, 4);
  std::string out;
  const int n = length(rng);
  for (int i = 0; i < n; ++i) {
    uint32_t cp;
    switch (kind(rng)) {
      case 0:
        cp = std::uniform_int_distribution<uint32_t>(0x01, 0x7F)(rng);
        break;
      case 1:
        cp = std::uniform_int_distribution<uint32_t>(0x80, 0x7FF)(rng);
        break;
      case 2:
        cp = std::uniform_int_distribution<uint32_t>(0x800, 0xFFFF)(rng);
        if (cp >= 0xD800 && cp <= 0xDFFF) cp = 0xE000;
        break;
      default:
        cp = std::uniform_int_distribution<uint32_t>(0x10000, 0x10FFFF)(rng);
        break;
    }
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  return out;
}

TEST(QueueLineTest, ValidUtf8IsQuotedExactlyLikeJsonCpp) {
  std::mt19937 rng(20240611);
  for (int i = 0; i < 5000; ++i) {
    const std::string text = RandomValidUtf8(rng);
    ASSERT_TRUE(IsValidUtf8(text));
    ASSERT_EQ(QuoteQueueString(text), toString(Json::Value(text)))
        << "case " << i;
  }
}

TEST(QueueLineTest, JsonCppItselfLosesInvalidBytes) {
  // The reason for our own quoting: JsonCpp writes U+FFFD instead.
  const std::string text = toString(Json::Value("/vol1/bad\xff"));
  EXPECT_EQ(text, "\"/vol1/bad\\ufffd\"");
}

TEST(QueueLineTest, LineOfValidStringsIsJsonCppText) {
  Json::Value event(Json::objectValue);
  event["event"] = Json::Value(256u);
  event["path"] = Json::Value("/vol1/Multimedia/new \xc3\xa9");
  event["path_old"] = Json::Value("/vol1/Multimedia/old");
  event["is_dir"] = Json::Value(false);
  EXPECT_EQ(QueueLineText(event), toString(event));
  EXPECT_EQ(QueueLineText(event),
            "{\"event\":256,\"is_dir\":false,\"path\":\"/vol1/Multimedia/new "
            "\\u00e9\",\"path_old\":\"/vol1/Multimedia/old\"}");
}

TEST(QueueLineTest, LineWithInvalidBytesKeepsJsonCppLayout) {
  Json::Value event(Json::objectValue);
  event["event"] = Json::Value(256u);
  event["path"] = Json::Value("/vol1/M/new\xff");
  event["path_old"] = Json::Value("/vol1/M/\"old\"");
  event["is_dir"] = Json::Value(true);
  EXPECT_EQ(QueueLineText(event),
            "{\"event\":256,\"is_dir\":true,\"path\":\"/vol1/M/new\\udcff\","
            "\"path_old\":\"/vol1/M/\\\"old\\\"\"}");
}

std::string RandomBytes(std::mt19937& rng) {
  std::uniform_int_distribution<int> length(0, 16);
  std::uniform_int_distribution<int> byte(1, 255);  // no NUL in file names
  std::string out = "/vol1/";
  const int n = length(rng);
  for (int i = 0; i < n; ++i) out += static_cast<char>(byte(rng));
  return out;
}

TEST(QueueLineTest, AnyBytesRoundTripThroughJsonCpp) {
  std::mt19937 rng(7);
  for (int i = 0; i < 20000; ++i) {
    const std::string path = RandomBytes(rng);
    Json::Value event(Json::objectValue);
    event["event"] = Json::Value(64u);
    event["path"] = Json::Value(path);
    event["is_dir"] = Json::Value(false);
    const std::string line = QueueLineText(event);
    ASSERT_EQ(line.find('\n'), std::string::npos);
    for (unsigned char c : line) ASSERT_LT(c, 0x80) << "line is ASCII";
    const Json::Value parsed = ParseLine(line);
    ASSERT_TRUE(parsed.isObject()) << line;
    ASSERT_EQ(DecodeQueuePath(parsed["path"].asString()), path) << line;
    ASSERT_EQ(parsed["event"].asUInt(), 64u);
  }
}

// The documented consumer recipe in Python: json.loads then os.fsencode.
TEST(QueueLineTest, PythonConsumerRecoversTheBytes) {
  ASSERT_EQ(0, access("/usr/bin/python3", X_OK)) << "no /usr/bin/python3";
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const std::vector<std::string> paths = {
      "/vol1/a b", "/vol1/q\"uote", "/vol1/back\\slash",
      "/vol1/\xc3\xa9t\xc3\xa9", "/vol1/\xf0\x9f\x98\x80",
      "/vol1/bad\xff\xfe", "/vol1/\xed\xa0\x80", "/vol1/tab\tnl\n",
      "/vol1/\xc3"};
  std::string lines;
  std::string expected_hex;
  for (const std::string& path : paths) {
    Json::Value event(Json::objectValue);
    event["event"] = Json::Value(64u);
    event["path"] = Json::Value(path);
    event["is_dir"] = Json::Value(false);
    lines += QueueLineText(event) + "\n";
    static const char kHex[] = "0123456789abcdef";
    for (unsigned char c : path) {
      expected_hex += kHex[c >> 4];
      expected_hex += kHex[c & 15];
    }
    expected_hex += "\n";
  }
  const std::string queue = dir.File("queue");
  WriteFileText(queue, lines);
  const std::string out = dir.File("out");
  const std::string command =
      "PYTHONUTF8=1 /usr/bin/python3 -c 'import json, os, sys\n"
      "with open(sys.argv[1], \"rb\") as f, open(sys.argv[2], \"w\") as o:\n"
      "    for raw in f:\n"
      "        path = json.loads(raw)[\"path\"]\n"
      "        o.write(os.fsencode(path).hex() + \"\\n\")\n'"
      " " + queue + " " + out;
  ASSERT_EQ(system(command.c_str()), 0);
  EXPECT_EQ(ReadFileText(out), expected_hex);
}

TEST(QueueLineTest, AppendQueueLineWritesWhatJsonCppWrites) {
  const std::vector<std::string> paths = {
      "",         "/vol1/M/a",       "/vol1/M/\"q\" \\ \b\f\n\r\t\x01\x1f\x7f",
      "/\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "/bad \xe9\xff\xc3", "/nul\0in"};
  for (const std::string& path : paths) {
    for (const uint32_t code : {1u, 64u, 128u, 512u, 1024u, 4294967295u}) {
      for (const bool is_dir : {false, true}) {
        Json::Value event(Json::objectValue);
        event["event"] = Json::Value(code);
        event["path"] = Json::Value(path);
        event["is_dir"] = Json::Value(is_dir);
        std::string text = "prefix";
        AppendQueueLine(text, code, path, is_dir);
        EXPECT_EQ(text, "prefix" + QueueLineText(event));

        event["path_old"] = Json::Value(paths[5 - (&path - &paths[0])]);
        text.clear();
        AppendQueueLine(text, code, path, is_dir,
                        QuoteQueueString(event["path_old"].asString()));
        EXPECT_EQ(text, QueueLineText(event));
      }
    }
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
