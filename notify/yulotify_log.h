// Log lines of the kernel notification layer.
//
// The layer's lines carry the source name "yulotify" and fixed line numbers,
// printed both as the line prefix and again inside the text
// ("yulotify:240 yulotify(240): yulo_notify_init: ..."). Tools that read the
// appliance's logs key on these numbers, so they are part of the log format
// and must not follow the layout of the source: every user names them here.
//
// Thread-safety: LogKernelCallError may be called from any thread.
#ifndef YULOTIFYD_NOTIFY_YULOTIFY_LOG_H_
#define YULOTIFYD_NOTIFY_YULOTIFY_LOG_H_

namespace YULO {
namespace YULOTIFYD {

// Source name under which every fixed line is written (its stem prints).
inline constexpr char kYulotifyLogSource[] = "yulotify.cc";

// Always written.
constexpr int kLineNotifyInit = 240;      // the init call failed
constexpr int kLineAddWatchFailed = 589;  // the add-watch call failed
constexpr int kLineSelect = 154;          // waiting for the descriptor failed
constexpr int kLineFdIsSet = 163;         // descriptor not reported readable
constexpr int kLineRead = 170;            // reading the descriptor failed
constexpr int kLineStatPath = 532;        // stat of the path to resolve
constexpr int kLineStatAncestor = 542;    // stat of one of its ancestors
constexpr int kLineChangeMaskFailed = 620;  // a watch's mask was not changed

// Written only at LOG_LEVEL 7.
constexpr int kLineWatchAdded = 585;      // a mount point got its kernel watch
constexpr int kLineWatchRemoved = 606;    // ... and lost it
constexpr int kLineFindMountPoint = 332;  // AddWatch resolved a mount point
constexpr int kLineWatchGone = 500;       // record under no watched path
constexpr int kLineNoMountEntry = 569;    // candidate not in the mount table
constexpr int kLineMaskChanged = 624;     // a watch's mask changed in place

// "yulotify(<line>): <call>: <strerror(err)> (<err>)", always written.
void LogKernelCallError(int line, const char* call, int err);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_YULOTIFY_LOG_H_
