#include "forward/connection.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/unique_fd.h"
#include "forward/redact.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

bool HasScheme(const std::string& url, const char* scheme) {
  return url.compare(0, strlen(scheme), scheme) == 0;
}

bool SetFileOption(const std::string& key, const std::string& value,
                   std::string* field, std::string* error) {
  if (value.empty() || value[0] != '/') {
    *error = key + " wants an absolute file name";
    return false;
  }
  *field = value;
  return true;
}

// The first line of `text`, without its line end and surrounding blanks.
std::string FirstLine(const std::string& text) {
  const size_t end = text.find_first_of("\r\n");
  const std::string line = text.substr(0, end);
  const size_t b = line.find_first_not_of(" \t");
  if (b == std::string::npos) return "";
  return line.substr(b, line.find_last_not_of(" \t") - b + 1);
}

// The first line after the one holding `marker` that is not blank and not
// a "---" line: how a credentials file sets out its JWT and its seed.
std::string BlockAfter(const std::string& text, const char* marker) {
  size_t pos = text.find(marker);
  if (pos == std::string::npos) return "";
  pos = text.find('\n', pos);
  while (pos != std::string::npos && pos + 1 < text.size()) {
    const std::string line = FirstLine(text.substr(pos + 1));
    if (!line.empty() && line.compare(0, 3, "---") == 0) return "";
    if (!line.empty()) return line;
    pos = text.find('\n', pos + 1);
  }
  return "";
}

bool IsTokenText(const std::string& s) {
  for (const char c : s) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) return false;
  }
  return !s.empty();
}

// Opens `path` for reading, without blocking on a FIFO or taking a
// terminal, and makes sure it is a regular file.
bool OpenRegular(const std::string& path, UniqueFd* fd, struct stat* st,
                 std::string* error) {
  *fd = UniqueFd(RetryOnEintr([&] {
    return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  }));
  if (!fd->Valid() || fstat(fd->Get(), st) != 0) {
    *error = "cannot open " + path + ": " + ErrnoText(errno);
    return false;
  }
  if (!S_ISREG(st->st_mode)) {
    *error = path + " is not a regular file";
    return false;
  }
  return true;
}

bool ReadOpened(const UniqueFd& fd, const std::string& path, size_t max_bytes,
                std::string* out, std::string* error) {
  const int err = ReadToEnd(fd.Get(), max_bytes, out);
  if (err != 0) {
    *error = "cannot read " + path + ": " +
             (err == EFBIG ? std::string("too large") : ErrnoText(err));
    return false;
  }
  return true;
}

// Reads a file that holds no secret (a certificate): any regular file.
bool ReadPublicFile(const std::string& path, std::string* out,
                    std::string* error) {
  UniqueFd fd;
  struct stat st;
  return OpenRegular(path, &fd, &st, error) &&
         ReadOpened(fd, path, kMaxCertificateFileBytes, out, error);
}

// The library's callbacks for a credentials file: the JWT, and the
// server's nonce signed with the seed.
natsStatus UserJwt(char** jwt, char** error_text, void* closure) {
  const auto* options = static_cast<const ConnectionOptions*>(closure);
  *jwt = strdup(options->jwt.c_str());
  if (*jwt != nullptr) return NATS_OK;
  *error_text = strdup("out of memory");
  return NATS_NO_MEMORY;
}

natsStatus SignNonce(char** error_text, unsigned char** signature,
                     int* length, const char* nonce, void* closure) {
  const auto* options = static_cast<const ConnectionOptions*>(closure);
  const natsStatus s = nats_Sign(options->seed.c_str(), nonce, signature,
                                 length);
  if (s != NATS_OK) *error_text = strdup("cannot sign with the NKey seed");
  return s;
}

bool LoadCreds(ConnectionOptions* o, std::string* error) {
  std::string text;
  if (!ReadProtectedFile(o->creds_file, kMaxSecretFileBytes, false, &text,
                         error)) {
    return false;
  }
  o->jwt = BlockAfter(text, "BEGIN NATS USER JWT");
  o->seed = BlockAfter(text, "BEGIN USER NKEY SEED");
  // Wiped: the seed stays in memory only where it is used.
  memset(&text[0], 0, text.size());
  if (o->jwt.empty() || o->seed.empty() ||
      o->seed.compare(0, 2, "SU") != 0) {
    *error = o->creds_file +
             " is not a credentials file: it wants a NATS USER JWT block "
             "and a USER NKEY SEED block";
    return false;
  }
  // A seed the library cannot sign with is refused now, not at each
  // connection.
  unsigned char* sig = nullptr;
  int sig_len = 0;
  // The library signs only once it is set up (which it otherwise does on
  // its first use).
  if (nats_Open(-1) != NATS_OK ||
      nats_Sign(o->seed.c_str(), "nonce", &sig, &sig_len) != NATS_OK) {
    *error = o->creds_file + ": the NKey seed is not valid";
    return false;
  }
  free(sig);
  return true;
}

}  // namespace

std::vector<std::string> SplitCommaList(const std::string& text) {
  std::vector<std::string> out;
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t comma = text.find(',', pos);
    if (comma == std::string::npos) comma = text.size();
    if (comma > pos) out.emplace_back(text, pos, comma - pos);
    pos = comma + 1;
  }
  return out;
}

SetResult SetConnectionOption(const std::string& key, const std::string& value,
                              ConnectionOptions* o, std::string* error) {
  bool ok = true;
  if (key == "server") {
    o->servers = SplitCommaList(value);
    if (o->servers.empty()) {
      *error = "server wants one URL or more, separated by commas";
      return SetResult::kBad;
    }
    for (const std::string& url : o->servers) {
      if (!HasScheme(url, "nats://") && !HasScheme(url, "tls://")) {
        *error = "server wants nats://HOST:PORT or tls://HOST:PORT URLs, not " +
                 WithoutUserInfo(url);
        return SetResult::kBad;
      }
    }
  } else if (key == "tls-ca") {
    ok = SetFileOption(key, value, &o->tls_ca_file, error);
  } else if (key == "tls-cert") {
    ok = SetFileOption(key, value, &o->tls_cert_file, error);
  } else if (key == "tls-key") {
    ok = SetFileOption(key, value, &o->tls_key_file, error);
  } else if (key == "password-file") {
    ok = SetFileOption(key, value, &o->password_file, error);
  } else if (key == "token-file") {
    ok = SetFileOption(key, value, &o->token_file, error);
  } else if (key == "creds") {
    ok = SetFileOption(key, value, &o->creds_file, error);
  } else if (key == "nats-user") {
    if (!IsTokenText(value) || value.find(':') != std::string::npos) {
      *error = "nats-user wants a user name (no blanks, no ':')";
      return SetResult::kBad;
    }
    o->nats_user = value;
  } else {
    return SetResult::kUnknown;
  }
  return ok ? SetResult::kSet : SetResult::kBad;
}

bool CheckConnectionOptions(const ConnectionOptions& o, std::string* error) {
  if (o.servers.empty()) {
    *error = "--server is required";
    return false;
  }
  if (o.tls_cert_file.empty() != o.tls_key_file.empty()) {
    *error = "--tls-cert and --tls-key go together";
    return false;
  }
  if (o.nats_user.empty() != o.password_file.empty()) {
    *error = "--nats-user and --password-file go together";
    return false;
  }
  const int ways = (o.password_file.empty() ? 0 : 1) +
                   (o.token_file.empty() ? 0 : 1) +
                   (o.creds_file.empty() ? 0 : 1);
  if (ways > 1) {
    *error = "one of --password-file, --token-file and --creds at most";
    return false;
  }
  return true;
}

bool ReadProtectedFile(const std::string& path, size_t max_bytes,
                       bool group_may_read, std::string* out,
                       std::string* error) {
  UniqueFd fd;
  struct stat st;
  if (!OpenRegular(path, &fd, &st, error)) return false;
  const mode_t refused = group_may_read ? (S_IRWXO | S_IWGRP | S_IXGRP)
                                        : (S_IRWXO | S_IRWXG);
  if ((st.st_mode & refused) != 0) {
    char mode[8];
    snprintf(mode, sizeof(mode), "%04o",
             static_cast<unsigned>(st.st_mode & 07777));
    *error = path + " is readable or writable by others (mode " + mode +
             "), and it may hold a password: chmod " +
             (group_may_read ? "600 it (or 640)" : "600 it");
    return false;
  }
  if (st.st_uid != 0 && st.st_uid != geteuid()) {
    *error = path + " belongs to user " + std::to_string(st.st_uid) +
             ", neither root nor the user running this program";
    return false;
  }
  return ReadOpened(fd, path, max_bytes, out, error);
}

bool LoadConnectionFiles(ConnectionOptions* o, std::string* error) {
  if (!CheckConnectionOptions(*o, error)) return false;
  if (!o->tls_ca_file.empty() &&
      !ReadPublicFile(o->tls_ca_file, &o->ca_pem, error)) {
    return false;
  }
  if (!o->tls_cert_file.empty() &&
      (!ReadPublicFile(o->tls_cert_file, &o->cert_pem, error) ||
       !ReadProtectedFile(o->tls_key_file, kMaxSecretFileBytes, false,
                          &o->key_pem, error))) {
    return false;
  }
  for (const auto& file : {std::make_pair(&o->password_file, &o->password),
                           std::make_pair(&o->token_file, &o->token)}) {
    if (file.first->empty()) continue;
    std::string text;
    if (!ReadProtectedFile(*file.first, kMaxSecretFileBytes, false, &text,
                           error)) {
      return false;
    }
    *file.second = FirstLine(text);
    memset(&text[0], 0, text.size());
    if (file.second->empty()) {
      *error = *file.first + " is empty: its first line is the secret";
      return false;
    }
  }
  if (!o->creds_file.empty() && !LoadCreds(o, error)) return false;
  o->loaded = true;
  return true;
}

bool UsesTls(const ConnectionOptions& o) {
  if (!o.tls_ca_file.empty() || !o.tls_cert_file.empty()) return true;
  for (const std::string& url : o.servers) {
    if (HasScheme(url, "tls://")) return true;
  }
  return false;
}

std::string ConnectError(const ConnectionOptions& o, natsStatus status) {
  std::string text = LibraryError(status);
  // A server that verifies clients ends a connection without a client
  // certificate right after the handshake; the library only sees it gone.
  if (UsesTls(o) && o.tls_cert_file.empty() &&
      (status == NATS_PROTOCOL_ERROR || status == NATS_CONNECTION_CLOSED ||
       status == NATS_IO_ERROR)) {
    text += " (the server ended the TLS connection: does it want a client "
            "certificate? see --tls-cert)";
  }
  return text;
}

std::string LibraryError(natsStatus status) {
  std::string text = natsStatus_GetText(status);
  const char* last_text = nats_GetLastError(nullptr);
  std::string last = last_text != nullptr ? last_text : "";
  // The library puts where in its sources the error arose first:
  // "(conn.c:733): SSL handshake error: ...". Not for an operator.
  if (!last.empty() && last[0] == '(') {
    const size_t end = last.find("): ");
    if (end != std::string::npos) last.erase(0, end + 3);
  }
  if (!last.empty() && last != text) text += ": " + last;
  return WithoutUserInfo(text);
}

bool BuildNatsOptions(const ConnectionOptions& o, natsOptions** out,
                      std::string* error) {
  if (!o.loaded) {
    *error = "the connection's files are not loaded";
    return false;
  }
  const bool secure = UsesTls(o);
  std::vector<const char*> urls;
  for (const std::string& url : o.servers) urls.push_back(url.c_str());
  natsOptions* opts = nullptr;
  natsStatus s = natsOptions_Create(&opts);
  const char* step = "servers";
  if (s == NATS_OK) {
    s = natsOptions_SetServers(opts, urls.data(),
                               static_cast<int>(urls.size()));
  }
  // Every server is then spoken to over TLS, its certificate verified:
  // nothing here ever skips the verification.
  if (s == NATS_OK && secure) {
    step = "TLS";
    s = natsOptions_SetSecure(opts, true);
  }
  if (s == NATS_OK && !o.ca_pem.empty()) {
    step = "--tls-ca";
    s = natsOptions_SetCATrustedCertificates(opts, o.ca_pem.c_str());
  }
  if (s == NATS_OK && !o.cert_pem.empty()) {
    step = "--tls-cert and --tls-key";
    s = natsOptions_SetCertificatesChain(opts, o.cert_pem.c_str(),
                                         o.key_pem.c_str());
  }
  if (s == NATS_OK && !o.password.empty()) {
    step = "user and password";
    s = natsOptions_SetUserInfo(opts, o.nats_user.c_str(),
                                o.password.c_str());
  }
  if (s == NATS_OK && !o.token.empty()) {
    step = "token";
    s = natsOptions_SetToken(opts, o.token.c_str());
  }
  if (s == NATS_OK && !o.jwt.empty()) {
    step = "credentials";
    // The closure is `o` itself: REQUIRES it outlives the options.
    void* closure = const_cast<ConnectionOptions*>(&o);
    s = natsOptions_SetUserCredentialsCallbacks(opts, UserJwt, closure,
                                                SignNonce, closure);
  }
  if (s != NATS_OK) {
    *error = std::string("cannot set up the connection (") + step +
             "): " + LibraryError(s);
    natsOptions_Destroy(opts);
    return false;
  }
  *out = opts;
  return true;
}

bool ConnectOnce(const ConnectionOptions& o, int64_t timeout_ms,
                 natsConnection** nc, std::string* error) {
  natsOptions* opts = nullptr;
  if (!BuildNatsOptions(o, &opts, error)) return false;
  natsStatus s = natsOptions_SetTimeout(opts, timeout_ms);
  if (s == NATS_OK) s = natsOptions_SetNoRandomize(opts, true);
  if (s == NATS_OK) s = natsOptions_SetAllowReconnect(opts, false);
  if (s == NATS_OK) s = natsConnection_Connect(nc, opts);
  if (s != NATS_OK) *error = ConnectError(o, s);
  natsOptions_Destroy(opts);
  return s == NATS_OK;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
