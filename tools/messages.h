// What the command says on standard error, and what it keeps from there.
#pragma once

#include <cstddef>
#include <string>

namespace qx::tools {

// Prints "qxtools: TEXT" as one line, without passwords.
void PrintMessage(const std::string& text);

// Prints "qxtools: warning: TEXT" likewise.
void PrintWarning(const std::string& text);

// Warns that `damaged` of `pictures` pictures of an input hold concealed errors.
void PrintDamage(const std::string& input, std::size_t damaged, std::size_t pictures);

// Returns: `text` with "scheme://user@" for every "scheme://user:password@" in it.
std::string WithoutPasswords(const std::string& text);

// Returns: "1 picture", "2 pictures" and so on for the noun "picture".
std::string Count(std::size_t number, const std::string& noun);

// Keeps the lines of the library and of FFmpeg away, so that a failure is one line for the user. Of
// the library's, only those become warnings that say why a QXTOOLS_* variable is ignored.
void QuietLibraryLog(const char* program);

// Lets errors, warnings and progress through: verbose level `level` of the library's log.
void ShowLibraryLog(int level);

}  // namespace qx::tools
