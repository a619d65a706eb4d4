// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// How long a start takes with 100,000 stored radios, each with two services, on the file system of the folder
// that is named on the command line (default: the current one).
#include "bench/barestatements.h"
#include "bench/silentlog.h"
#include "core/quillmere.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    const uint32_t Radios = argc > 2 ? static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)) : 100000;
    const QCoreApplication application(argc, argv);
    const QString place = argc > 1 ? QFile::decodeName(argv[1]) : QDir::currentPath();
    const QTemporaryDir folder(place + QStringLiteral("/quillmere-bench-XXXXXX"));
    if (!folder.isValid()) {
        std::fprintf(stderr, "cannot make a folder in %s\n", qPrintable(place));
        return 1;
    }
    silenceLog();
    qputenv("QUILLMERE_APPDATA", QFile::encodeName(folder.path()));
    const QString data = folder.filePath(QStringLiteral("Brackwater/Quill Mere"));
    QDir().mkpath(data);
    QFile configuration(data + QStringLiteral("/qmr.cfg"));
    if (!configuration.open(QIODevice::WriteOnly)) {
        return 1;
    }
    configuration.write("radioRegistrationPort=0\napplicationPort=0\n");
    configuration.close();
    BareStatements(data + QStringLiteral("/qmr.db")).fill(Radios, QDateTime::currentSecsSinceEpoch());

    QMR::Quillmere server(argc, argv);
    QElapsedTimer timer;
    timer.start();
    server.start();
    const double seconds = static_cast<double>(timer.elapsed()) / 1000;
    const size_t loaded = server.radios().size();
    server.stop();
    std::printf("%zu stored radios loaded and reviewed in %.2f s (to stay under 5 s on disk)\n", loaded,
                seconds);
    return loaded == Radios ? 0 : 1;
}
