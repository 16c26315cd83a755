// Asking for passphrases on the controlling terminal, without echo.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace whittle::diskimage {

// Shows the prompt and reads one line; none when the process has no terminal.
using PassphrasePrompt = std::function<std::optional<std::string>(const std::string& prompt)>;

std::optional<std::string> readPassphraseFromTerminal(const std::string& prompt);

}  // namespace whittle::diskimage
