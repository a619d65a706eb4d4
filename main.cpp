// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"
#include "service/platform.h"

int processMain(int argc, char **argv)
{
    QMR::Quillmere server(argc, argv);
    return server.exec();
}
