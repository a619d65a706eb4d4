// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Any bytes as the script of a server's life. A life that differs from the model's is a finding: its steps
// are printed.
#include "tests/fuzz/server/serverscene.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

using namespace Qt::StringLiterals;

namespace {

constexpr int MostSteps = 50;

FuzzWorld &world()
{
    static int argc = 1;
    static char name[] = "fuzz_server";
    static char *argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    static FuzzWorld world;
    return world;
}

// Empty, or what differs; then with the steps, if they are wanted.
QString live(QByteArrayView bytes, bool isToldInSteps)
{
    Script script(bytes);
    ServerScene scene(world(), script);
    if (isToldInSteps) {
        scene.keepSteps();
    }
    for (int i = 0; i < MostSteps && !script.isOver() && scene.difference().isEmpty(); ++i) {
        scene.takeStep();
    }
    if (scene.difference().isEmpty()) {
        scene.end();
    }
    return scene.difference().isEmpty()
               ? QString()
               : scene.difference() + u"\nafter:\n    "_s + scene.steps().join(u"\n    "_s);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView bytes(data, static_cast<qsizetype>(size));
    if (!live(bytes, false).isEmpty()) {
        std::fputs(qPrintable(live(bytes, true) + u'\n'), stderr);
        std::abort();
    }
    return 0;
}
