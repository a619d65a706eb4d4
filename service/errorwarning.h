// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

// Prints the text through Qt's message output, with the system's text for the calling thread's last error in
// parentheses behind it. The message type is critical, which is what qErrnoWarning() gives its warnings.
void warnWithLastError(const char *message);
