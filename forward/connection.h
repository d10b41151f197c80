// How the forwarder's programs reach their NATS servers: the server URLs,
// TLS (the CA that verifies the server, a client certificate and its key)
// and one way to authenticate (a user and a password, a token, or a
// credentials file holding a user JWT and its NKey seed).
//
// Secrets are only ever named by file, never given on the command line
// (where every local user reads them in /proc/PID/cmdline). The files are
// read once, at start, before a program started as root gives up root: the
// programs then hold what they need in memory and never open them again.
// A file that holds a secret (the key, the password, the token, the
// credentials) must be a regular file owned by root or by the user running
// the program, with no permission for its group or for others: one that
// others could read or change is refused, as an ssh key is.
//
// Server verification is never turned off: with TLS, the server's
// certificate is checked against --tls-ca (or, without it, the system's
// CAs) and the host name the URL names.
//
// Thread-safety: plain functions on caller-owned values. A natsOptions built
// here refers to the ConnectionOptions it was built from (the credentials'
// callbacks read it from the library's threads, without changing it).
#ifndef YULOTIFYD_FORWARD_CONNECTION_H_
#define YULOTIFYD_FORWARD_CONNECTION_H_

#include <nats/nats.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

// A secret file is larger than this only by mistake.
constexpr size_t kMaxSecretFileBytes = 64 * 1024;
// A bundle of CA certificates (the system's holds some hundreds).
constexpr size_t kMaxCertificateFileBytes = 4 * 1024 * 1024;

struct ConnectionOptions {
  // As given: nats://host:port or tls://host:port, tried in turn.
  std::vector<std::string> servers;
  // Files named by the options; empty when not given.
  std::string tls_ca_file;
  std::string tls_cert_file;
  std::string tls_key_file;
  std::string nats_user;  // not a secret: the password is
  std::string password_file;
  std::string token_file;
  std::string creds_file;

  // Filled in by LoadConnectionFiles from the files above.
  bool loaded = false;
  std::string ca_pem;
  std::string cert_pem;
  std::string key_pem;
  std::string password;
  std::string token;
  std::string jwt;
  std::string seed;
};

// "a,b,,c" -> {"a", "b", "c"}: a list option's items, empty ones dropped.
std::vector<std::string> SplitCommaList(const std::string& text);

enum class SetResult { kSet, kUnknown, kBad };

// Sets the connection option `key` (a long option's name without "--", or
// a configuration key): server, tls-ca, tls-cert, tls-key, nats-user,
// password-file, token-file, creds. kUnknown when `key` is none of them;
// kBad with `error` when the value is not acceptable.
SetResult SetConnectionOption(const std::string& key, const std::string& value,
                              ConnectionOptions* options, std::string* error);

// What the options ask for as a whole: at least one server, a certificate
// and its key together, a password only with a user name, one way to
// authenticate at most. False with a one-line `error`.
bool CheckConnectionOptions(const ConnectionOptions& options,
                            std::string* error);

// Reads the files the options name into `options` (sets `loaded`). A
// secret file that others can read or change, or that belongs to another
// user, is refused, as is one that cannot be read or does not hold what it
// should. False with a one-line `error` that names the file and says why.
bool LoadConnectionFiles(ConnectionOptions* options, std::string* error);

// Reads `path`, which holds a secret, into `out` (at most `max_bytes`):
// it must be a regular file owned by root or by the effective user with no
// permission for its group or others (with `group_may_read`, its group may
// read it). Opened without following it into a FIFO or device.
bool ReadProtectedFile(const std::string& path, size_t max_bytes,
                       bool group_may_read, std::string* out,
                       std::string* error);

// Builds the library's options for `options` (REQUIRES: loaded): servers,
// TLS, authentication. The caller owns *out (natsOptions_Destroy) and adds
// its own timeouts and callbacks. REQUIRES: `options` outlives *out and
// every connection made with it.
bool BuildNatsOptions(const ConnectionOptions& options, natsOptions** out,
                      std::string* error);

// Connects once, trying each server in turn, waiting at most `timeout_ms`
// for each; for short-lived tools. REQUIRES: loaded, and `options` outlives
// the connection. False with `error` saying why the last server refused.
bool ConnectOnce(const ConnectionOptions& options, int64_t timeout_ms,
                 natsConnection** nc, std::string* error);

// Whether the servers are spoken to over TLS: a tls:// URL, --tls-ca or a
// client certificate.
bool UsesTls(const ConnectionOptions& options);

// Why a connection failed, for an operator: the library's text, and what
// it likely means when the library cannot tell.
std::string ConnectError(const ConnectionOptions& options, natsStatus status);

// The library's text for the last failure of a call, without user
// information in URLs: why a connection failed (a certificate not
// verified, authorization refused) as far as the library says.
std::string LibraryError(natsStatus status);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_CONNECTION_H_
