#include "forward/sink_state.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <json/json.h>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

// Hosts and roots bound the file: kMaxHosts * kMaxRootsPerHost names.
constexpr size_t kMaxStateBytes = 64 * 1024 * 1024;

Json::Value RootsToJson(const HostRoots& roots) {
  Json::Value out(Json::objectValue);
  for (const auto& host : roots) {
    Json::Value list(Json::arrayValue);
    for (const std::string& root : host.second) list.append(root);
    out[host.first] = list;
  }
  return out;
}

bool RootsFromJson(const Json::Value& in, HostRoots* roots) {
  if (in.isNull()) return true;
  if (!in.isObject()) return false;
  for (const std::string& host : in.getMemberNames()) {
    const Json::Value& list = in[host];
    if (!list.isArray()) return false;
    for (const Json::Value& root : list) {
      if (!root.isString()) return false;
      AddRoot(roots, host, root.asString());
    }
  }
  return true;
}

bool GetU64(const Json::Value& object, const char* key, uint64_t* out) {
  const Json::Value& v = object[key];
  if (v.isNull()) return true;
  if (!v.isUInt64()) return false;
  *out = v.asUInt64();
  return true;
}

bool GetI64(const Json::Value& object, const char* key, int64_t* out) {
  const Json::Value& v = object[key];
  if (v.isNull()) return true;
  if (!v.isInt64()) return false;
  *out = v.asInt64();
  return true;
}

bool PendingFromJson(const Json::Value& in, PendingWrite* p) {
  if (in.isNull()) return true;
  if (!in.isObject()) return false;
  p->active = true;
  p->reset = in["reset"].asBool();
  return GetU64(in, "last_seq", &p->last_seq) && GetU64(in, "dev", &p->dev) &&
         GetU64(in, "ino", &p->ino) && GetI64(in, "offset", &p->offset) &&
         GetU64(in, "length", &p->length) &&
         GetI64(in, "mtime_ns", &p->mtime_ns) &&
         GetI64(in, "ctime_ns", &p->ctime_ns) &&
         RootsFromJson(in["roots"], &p->roots);
}

Json::Value PendingToJson(const PendingWrite& p) {
  Json::Value out(Json::objectValue);
  out["last_seq"] = Json::UInt64(p.last_seq);
  out["reset"] = p.reset;
  out["dev"] = Json::UInt64(p.dev);
  out["ino"] = Json::UInt64(p.ino);
  out["offset"] = Json::Int64(p.offset);
  out["length"] = Json::UInt64(p.length);
  out["mtime_ns"] = Json::Int64(p.mtime_ns);
  out["ctime_ns"] = Json::Int64(p.ctime_ns);
  out["roots"] = RootsToJson(p.roots);
  return out;
}

}  // namespace

bool AddRoot(HostRoots* roots, const std::string& host,
             const std::string& root) {
  const std::string who =
      roots->size() >= kMaxHosts && roots->count(host) == 0 ? "" : host;
  std::set<std::string>& mine = (*roots)[who];
  if (mine.count("/") != 0 || mine.count(root) != 0) return false;
  if (root == "/" || mine.size() >= kMaxRootsPerHost) {
    mine = {"/"};
  } else {
    mine.insert(root);
  }
  return true;
}

bool LoadSinkState(const std::string& path, SinkState* state,
                   std::string* error) {
  *state = SinkState();
  std::string text;
  const int err = ReadWholeFile(path, kMaxStateBytes, &text);
  if (err == ENOENT) return true;
  if (err != 0) {
    *error = "cannot read " + path + ": " + ErrnoText(err);
    return false;
  }
  Json::Value in;
  const bool ok =
      fromString(text, in) && in.isObject() && in["stream"].isString() &&
      in["stream_created"].isString() &&
      GetU64(in, "committed", &state->committed) &&
      PendingFromJson(in["pending"], &state->pending) &&
      RootsFromJson(in["roots"], &state->roots);
  if (!ok) {
    *state = SinkState();
    *error = path + " is not a state file of yulotify-sink; move it away "
             "to start from the stream's first message";
    return false;
  }
  state->stream = in["stream"].asString();
  state->stream_created = in["stream_created"].asString();
  return true;
}

bool SaveSinkState(const std::string& path, const SinkState& state,
                   std::string* error) {
  Json::Value out(Json::objectValue);
  out["stream"] = state.stream;
  out["stream_created"] = state.stream_created;
  out["committed"] = Json::UInt64(state.committed);
  if (state.pending.active) out["pending"] = PendingToJson(state.pending);
  out["roots"] = RootsToJson(state.roots);
  if (!toFile(out, path, 0600)) {
    *error = "cannot write " + path + ": " + ErrnoText(errno);
    return false;
  }
  // The rename is durable only once the directory is.
  const std::string dir = ParentDir(path);
  const UniqueFd fd(RetryOnEintr([&] {
    return open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }));
  if (!fd.Valid() || !FsyncRetrying(fd.Get())) {
    *error = "cannot fsync " + dir + ": " + ErrnoText(errno);
    return false;
  }
  return true;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
