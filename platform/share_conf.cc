// share_conf.cc: the shared folders, from Samba's configuration.
//
// Every section of smb.conf that is not one of Samba's special sections and
// has a "path" is a share. The file is read on every call, so a share added
// or removed while the daemon runs is seen at once.
//
// The lines are tokenised by inih, fed through our own reader because of
// how smb.conf differs from the INI dialect inih's Debian build expects:
//   - smb.conf is normally indented, and inih (built with multi-line values)
//     would take every indented line as the continuation of the previous
//     value. The reader strips leading blanks from every line.
//   - inih truncates section names to 49 bytes and takes lines of at most a
//     couple of hundred bytes. Share names can be longer, so the reader keeps
//     track of the current section itself and gives inih a short stand-in
//     header; an over-long "path" line is parsed by the reader directly.
//   - Samba joins a line ending in "\" with the next one; so does the reader.
#include <errno.h>
#include <ini.h>

#include <exception>
#include <new>
#include <unordered_map>

#include "platform_internal.h"
#include "yulo_build_config.h"

namespace yulo_platform {
namespace {

constexpr char kStem[] = "share_conf";

// Physical lines longer than this are not configuration; the reader never
// buffers more of one.
constexpr size_t kMaxLine = 64 * 1024;

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

char AsciiLower(char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; }

// Samba compares share names without regard to case.
std::string FoldCase(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = AsciiLower(c);
  return out;
}

// Samba matches parameter names ignoring case and blanks ("Path", "p ath").
// "directory" is Samba's synonym for "path".
bool IsPathKey(std::string_view name) {
  std::string key;
  for (char c : name) {
    if (!IsBlank(c)) key.push_back(AsciiLower(c));
  }
  return key == "path" || key == "directory";
}

struct ShareDraft {
  std::string name;
  std::string path;  // "" while the section has no usable path
};

// Everything the reader and the handler share while inih runs.
struct ConfParse {
  const std::string* conf_path = nullptr;
  Complaints* complaints = nullptr;
  LineReader reader{kMaxLine};
  int line_no = 0;          // physical line last read
  int logical_line_no = 0;  // where the line being handed to inih began
  std::string section;      // the current section's name
  bool in_share = false;    // the current section can be a share
  std::vector<ShareDraft> drafts;
  std::unordered_map<std::string, size_t> by_name;  // folded name -> draft
  // Exceptions must not unwind through inih's C frames; the callbacks park
  // them here and stop the parse.
  std::exception_ptr failure;
  bool buffer_too_small = false;
};

void SetPath(ConfParse* p, std::string_view raw_value) {
  std::string key = FoldCase(p->section);
  auto it = p->by_name.find(key);
  if (it == p->by_name.end()) {
    it = p->by_name.emplace(key, p->drafts.size()).first;
    p->drafts.push_back(ShareDraft{p->section, ""});
  }
  ShareDraft& draft = p->drafts[it->second];
  std::string_view value = Trim(raw_value);
  if (value.empty() || value[0] != '/') {
    YULO_COMPLAIN(p->complaints,
                  "%s:%d: share [%s] has path \"%.*s\", which is not an "
                  "absolute path; the share is left out",
                  p->conf_path->c_str(), p->logical_line_no, p->section.c_str(),
                  static_cast<int>(value.size()), value.data());
    draft.path.clear();
    return;
  }
  // A later "path" in the same share, or in a repeated section of the same
  // name, replaces the earlier one, as in Samba.
  draft.path = NormalisePath(value);
}

// The next line with "\"-continuations joined, or false at the end.
bool NextLogicalLine(ConfParse* p, std::string* out, bool* overlong) {
  out->clear();
  *overlong = false;
  std::string piece;
  bool got_any = false;
  for (;;) {
    bool piece_overlong;
    if (!p->reader.Next(&piece, &piece_overlong)) return got_any;
    ++p->line_no;
    if (!got_any) p->logical_line_no = p->line_no;
    if (p->line_no == 1 && piece.compare(0, 3, "\xEF\xBB\xBF") == 0) {
      piece.erase(0, 3);  // a UTF-8 byte-order mark
    }
    got_any = true;
    if (piece_overlong || out->size() + piece.size() > kMaxLine) {
      *overlong = true;
    }
    if (!piece.empty() && piece.back() == '\r') piece.pop_back();
    bool continued = !piece.empty() && piece.back() == '\\';
    if (continued) piece.pop_back();
    if (!*overlong) out->append(piece);
    if (!continued) return true;
  }
}

// Copies `line` and its "\n" into inih's buffer; the caller checked the size.
char* Hand(char* str, std::string_view line) {
  line.copy(str, line.size());
  str[line.size()] = '\n';
  str[line.size() + 1] = '\0';
  return str;
}

// A "name = value" line too long for inih. Only "path" matters to us, so
// only it is split here, the way inih would split it: at the first "=" or
// ":", with a ";" that follows a blank starting a comment.
void HandleLongLine(ConfParse* p, std::string_view line) {
  size_t sep = line.find_first_of("=:");
  if (sep == std::string_view::npos) return;
  if (!p->in_share || !IsPathKey(Trim(line.substr(0, sep)))) return;
  std::string_view value = line.substr(sep + 1);
  for (size_t i = 1; i < value.size(); ++i) {
    if (value[i] == ';' && IsBlank(value[i - 1])) {
      value = value.substr(0, i);
      break;
    }
  }
  SetPath(p, value);
}

char* Reader(char* str, int num, void* stream) {
  auto* p = static_cast<ConfParse*>(stream);
  try {
    if (p->failure || p->buffer_too_small) return nullptr;
    // inih offers a buffer of a couple of hundred bytes. One that cannot
    // even hold a stand-in header means a build of inih we cannot work with.
    if (num < 8) {
      p->buffer_too_small = true;
      return nullptr;
    }
    const size_t room = static_cast<size_t>(num) - 2;  // "\n" and NUL
    std::string line;
    bool overlong;
    if (!NextLogicalLine(p, &line, &overlong)) return nullptr;
    std::string_view s = line;
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    if (overlong) {
      YULO_COMPLAIN(p->complaints, "%s:%d: line longer than %zu bytes ignored",
                    p->conf_path->c_str(), p->logical_line_no, kMaxLine);
      // Keys after a header we could not read must not land in the share
      // before it.
      if (!s.empty() && s[0] == '[') p->in_share = false;
      return Hand(str, "");
    }
    if (s.empty() || s[0] == '#' || s[0] == ';') return Hand(str, "");
    if (s[0] == '[') {
      size_t close = s.find(']');
      if (close == std::string_view::npos) {
        YULO_COMPLAIN(p->complaints,
                      "%s:%d: section header without \"]\"; the lines up to "
                      "the next section are ignored",
                      p->conf_path->c_str(), p->logical_line_no);
        p->section.clear();
        p->in_share = false;
        return Hand(str, "");
      }
      p->section = std::string(Trim(s.substr(1, close - 1)));
      p->in_share = !p->section.empty() && !IsSpecialSection(p->section);
      return Hand(str, "[s]");
    }
    if (s.size() > room) {
      HandleLongLine(p, s);
      return Hand(str, "");
    }
    return Hand(str, s);
  } catch (...) {
    p->failure = std::current_exception();
    return nullptr;
  }
}

int Handler(void* user, const char* /*section*/, const char* name,
            const char* value) {
  auto* p = static_cast<ConfParse*>(user);
  try {
    // The section argument is inih's possibly truncated copy of our
    // stand-in; the reader knows the real one.
    if (p->in_share && name != nullptr && value != nullptr && IsPathKey(name)) {
      SetPath(p, value);
    }
  } catch (...) {
    if (!p->failure) p->failure = std::current_exception();
  }
  return 1;  // a line we do not understand is not a reason to stop
}

}  // namespace

bool IsSpecialSection(std::string_view name) {
  std::string folded = FoldCase(name);
  return folded == "global" || folded == "homes" || folded == "printers" ||
         folded == "print$";
}

int LoadShares(const std::string& smb_conf_path, std::vector<Share>* out,
               Complaints* complaints) {
  out->clear();
  ConfParse p;
  p.conf_path = &smb_conf_path;
  p.complaints = complaints;
  int err = p.reader.Open(smb_conf_path);
  if (err != 0) {
    YULO_COMPLAIN(complaints, "cannot open %s: %s", smb_conf_path.c_str(),
                  ErrnoText(err).c_str());
    return err;
  }
  // Syntax errors (a line with no "=", say) make inih return the number of
  // the first such line; Samba skips them too, so that is not a failure.
  int rc = ini_parse_stream(Reader, &p, Handler, &p);
  if (p.failure) std::rethrow_exception(p.failure);
  if (rc == -2) throw std::bad_alloc();
  if (p.buffer_too_small) {
    YULO_COMPLAIN(complaints, "cannot parse %s: inih offers too short a line",
                  smb_conf_path.c_str());
    return EINVAL;
  }
  if (p.reader.error() != 0) {
    YULO_COMPLAIN(complaints, "cannot read %s: %s", smb_conf_path.c_str(),
                  ErrnoText(p.reader.error()).c_str());
    return p.reader.error();
  }
  for (ShareDraft& draft : p.drafts) {
    if (!draft.path.empty()) {
      out->push_back(Share{std::move(draft.name), std::move(draft.path)});
    }
  }
  return 0;
}

int EnumShares(const std::string& smb_conf_path, PYULO_SZ_LIST* list,
               Complaints* complaints) {
  if (list == nullptr) return kShareBadArgument;
  std::vector<Share> shares;
  if (LoadShares(smb_conf_path, &shares, complaints) != 0) {
    return kShareConfUnreadable;
  }
  for (const Share& share : shares) {
    if (YULOSzListAdd(list, share.name.c_str()) < 0) return kShareNoMemory;
  }
  return static_cast<int>(shares.size());
}

int GetSharePath(const std::string& smb_conf_path, const char* name, char* buf,
                 int size, Complaints* complaints) {
  // Whatever goes wrong, a caller that ignores the result reads "", not
  // whatever the buffer held before.
  if (buf != nullptr && size > 0) buf[0] = '\0';
  if (name == nullptr || buf == nullptr || size <= 0) return kShareBadArgument;
  std::vector<Share> shares;
  if (LoadShares(smb_conf_path, &shares, complaints) != 0) {
    return kShareConfUnreadable;
  }
  std::string wanted = FoldCase(Trim(name));
  for (const Share& share : shares) {
    if (FoldCase(share.name) != wanted) continue;
    if (share.path.size() >= static_cast<size_t>(size)) {
      return kShareBufferTooSmall;
    }
    share.path.copy(buf, share.path.size());
    buf[share.path.size()] = '\0';
    return kShareOk;
  }
  return kShareNotFound;
}

}  // namespace yulo_platform

// The C entry points; no exception may reach a C caller.

extern "C" int YULOShareEnum(PYULO_SZ_LIST* list, int /*flags*/) {
  try {
    return yulo_platform::EnumShares(YULO_SMB_CONF_PATH, list, nullptr);
  } catch (...) {
    return yulo_platform::kShareNoMemory;
  }
}

extern "C" int YULOSharePathGet(const char* name, char* buf, int size) {
  try {
    return yulo_platform::GetSharePath(YULO_SMB_CONF_PATH, name, buf, size,
                                       nullptr);
  } catch (...) {
    return yulo_platform::kShareNoMemory;
  }
}
