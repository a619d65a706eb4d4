// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"

int main(int argc, char **argv)
{
    return processMain(argc, argv);
}
