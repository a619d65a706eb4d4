# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

# Tests that only Linux has.
add_subdirectory(fuzz)
add_subdirectory(unit/linux)
add_subdirectory(integration/linux)
add_subdirectory(system)
add_subdirectory(system/guide)
add_subdirectory(system/systemd)
