#include "output/queue_line.h"

#include <cstddef>
#include <cstdio>

#include "notify/notify_event.h"
#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Length of the well-formed UTF-8 sequence at the start of s[0..n), with its
// code point in *cp; 0 when the bytes there do not start one. The ranges of
// the second byte are those of the Unicode "well-formed byte sequences"
// table: they rule out overlong forms, surrogates and code points above
// U+10FFFF.
size_t DecodeUtf8(const unsigned char* s, size_t n, uint32_t* cp) {
  const unsigned char c0 = s[0];
  if (c0 < 0x80) {
    *cp = c0;
    return 1;
  }
  size_t len;
  unsigned char lo = 0x80;
  unsigned char hi = 0xBF;
  uint32_t value;
  if (c0 < 0xC2) {
    return 0;  // a continuation byte, or an overlong two-byte lead
  } else if (c0 < 0xE0) {
    len = 2;
    value = c0 & 0x1F;
  } else if (c0 < 0xF0) {
    len = 3;
    value = c0 & 0x0F;
    if (c0 == 0xE0) lo = 0xA0;  // overlong
    if (c0 == 0xED) hi = 0x9F;  // surrogates
  } else if (c0 < 0xF5) {
    len = 4;
    value = c0 & 0x07;
    if (c0 == 0xF0) lo = 0x90;  // overlong
    if (c0 == 0xF4) hi = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (n < len) return 0;
  if (s[1] < lo || s[1] > hi) return 0;
  value = (value << 6) | (s[1] & 0x3F);
  for (size_t i = 2; i < len; ++i) {
    if (s[i] < 0x80 || s[i] > 0xBF) return 0;
    value = (value << 6) | (s[i] & 0x3F);
  }
  *cp = value;
  return len;
}

void AppendHex16(std::string& out, uint32_t unit) {
  static const char kHex[] = "0123456789abcdef";
  out += "\\u";
  out += kHex[(unit >> 12) & 0xF];
  out += kHex[(unit >> 8) & 0xF];
  out += kHex[(unit >> 4) & 0xF];
  out += kHex[unit & 0xF];
}

bool HasInvalidString(const Json::Value& object) {
  for (Json::Value::const_iterator it = object.begin(); it != object.end();
       ++it) {
    if (it->isString() && !IsValidUtf8(it->asString())) return true;
  }
  return false;
}

}  // namespace

uint32_t QueueEventCode(uint32_t mask) {
  uint32_t code = mask & kPassThroughEventBits;
  if (mask & (YULO_MOVE_TO | YULO_CREATE)) code += 64;
  if (mask & YULO_RESCAN) code += 512;
  if (mask & (YULO_MOVE_FROM | YULO_DELETE)) code += 128;
  return code;
}

bool IsValidUtf8(const std::string& text) {
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  size_t i = 0;
  uint32_t cp;
  while (i < n) {
    const size_t len = DecodeUtf8(s + i, n - i, &cp);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

void AppendQueueString(std::string& out, std::string_view text) {
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  out.reserve(out.size() + n + 2);
  out += '"';
  size_t i = 0;
  while (i < n) {
    uint32_t cp;
    const size_t len = DecodeUtf8(s + i, n - i, &cp);
    if (len == 0) {
      // Not part of any valid sequence: always 0x80 or more, so the escape
      // lands in U+DC80..U+DCFF, which valid UTF-8 can never produce.
      AppendHex16(out, 0xDC00 + s[i]);
      ++i;
      continue;
    }
    i += len;
    switch (cp) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (cp < 0x20) {
          AppendHex16(out, cp);
        } else if (cp < 0x80) {
          out += static_cast<char>(cp);
        } else if (cp < 0x10000) {
          AppendHex16(out, cp);
        } else {
          cp -= 0x10000;
          AppendHex16(out, 0xD800 + ((cp >> 10) & 0x3FF));
          AppendHex16(out, 0xDC00 + (cp & 0x3FF));
        }
        break;
    }
  }
  out += '"';
}

std::string QuoteQueueString(const std::string& text) {
  std::string out;
  AppendQueueString(out, text);
  return out;
}

void AppendQueueLine(std::string& out, uint32_t code, std::string_view path,
                     bool is_dir, std::string_view quoted_old_path) {
  // JsonCpp writes an object's members in key order: event, is_dir, path,
  // path_old.
  char number[16];
  const int len = snprintf(number, sizeof(number), "%u", code);
  out += "{\"event\":";
  out.append(number, static_cast<size_t>(len));
  out += is_dir ? ",\"is_dir\":true,\"path\":" : ",\"is_dir\":false,\"path\":";
  AppendQueueString(out, path);
  if (!quoted_old_path.empty()) {
    out += ",\"path_old\":";
    out += quoted_old_path;
  }
  out += '}';
}

std::string QueueLineText(const Json::Value& object) {
  if (!object.isObject() || !HasInvalidString(object)) return toString(object);
  // The same text JsonCpp would write, member by member in its order, with
  // our own quoting for the strings it would damage.
  std::string text = "{";
  bool first = true;
  for (Json::Value::const_iterator it = object.begin(); it != object.end();
       ++it) {
    if (!first) text += ',';
    first = false;
    text += toString(Json::Value(it.name()));
    text += ':';
    if (it->isString() && !IsValidUtf8(it->asString())) {
      text += QuoteQueueString(it->asString());
    } else {
      text += toString(*it);
    }
  }
  text += '}';
  return text;
}

}  // namespace YULOTIFYD
}  // namespace YULO
