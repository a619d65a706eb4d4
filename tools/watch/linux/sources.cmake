# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

target_sources(quillmere_watchtool PRIVATE linux/keysequence.cpp)
