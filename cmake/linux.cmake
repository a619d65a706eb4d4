# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

function(quillmere_platform_executable target description)
endfunction()

function(quillmere_platform_test target)
endfunction()
