// Every path the system names is resolved here. "~" expands with $HOME; absolute device paths
// ("/var/root/Library/Logs/Vorlund", "/tmp/Faultbin/", ...) resolve under $VORLUND_ROOT (default
// "/"), so a test or a demo relocates the whole device file system with two variables.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vl::paths {

// $HOME, or the home folder of the user in the password database when HOME is unset.
std::string home();
// $VORLUND_ROOT, or "/" when unset or empty.
std::string root();

// "~" and "~/x" expand with home(); other paths are returned unchanged.
std::string expandTilde(std::string_view path);
// An absolute device path under root(); "~" paths expand with home() and are not re-rooted;
// relative paths are returned unchanged.
std::string resolve(std::string_view path);

// The last path component ("a/b.log" -> "b.log"; "a/b/" -> "b").
std::string lastComponent(std::string_view path);
// The path without its last component ("a/b.log" -> "a"; "b" -> "").
std::string deletingLastComponent(std::string_view path);
// Joins two components with exactly one "/".
std::string join(std::string_view a, std::string_view b);

// Creates the folder and its parents (mode 0755). Returns false and leaves errno set on failure.
bool createDirectories(const std::string& path);

// Writes bytes to path atomically: a temporary file in the same folder, fsync, then rename. The old
// file stays whole when anything fails. Returns false on failure.
bool writeFileAtomically(const std::string& path, std::string_view bytes);
// The whole file, or none when it cannot be read.
std::optional<std::string> readFile(const std::string& path);

}  // namespace vl::paths
