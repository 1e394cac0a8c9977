// The user's editor.
#pragma once

#include <string>

namespace ledgerctl {

/// Runs $VISUAL, $EDITOR or vi on the file and waits for its end; Ctrl-C is the editor's meanwhile. Throws Failure
/// (Local) if it cannot be run or does not end with status 0. Ctrl-C that ends the editor ends this program too.
void RunEditor(const std::string& path);

}  // namespace ledgerctl
