// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <langinfo.h>

namespace {

// Qt complains on the console of any locale but UTF-8 ones, and then uses this one.
void useUtf8()
{
    (void)std::setlocale(LC_ALL, "");
    if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") != 0) {
        ::setenv("LC_ALL", "C.UTF-8", 1);
    }
    (void)std::setlocale(LC_ALL, "C");
}

} // namespace

int main(int argc, char **argv)
{
    useUtf8();
    // A reader of the output or of the event records that goes away must not take the server with it.
    (void)std::signal(SIGPIPE, SIG_IGN);
    return processMain(argc, argv);
}
