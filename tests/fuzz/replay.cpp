// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Stands for libFuzzer where a compiler has none, or only what was found before is wanted: each file named,
// and each file of each folder named, is one input.
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

QStringList filesOf(const QString &path)
{
    if (!QFileInfo(path).isDir()) {
        return {path};
    }
    QStringList files;
    for (QDirIterator entries(path, QDir::Files); entries.hasNext();) {
        files.append(entries.next());
    }
    // So that each run is the same.
    files.sort();
    return files;
}

} // namespace

int main(int argc, char **argv)
{
    qsizetype played = 0;
    for (int i = 1; i < argc; ++i) {
        const QStringList paths = filesOf(QFile::decodeName(argv[i]));
        for (const QString &path : paths) {
            QFile file(path);
            if (!file.open(QFile::ReadOnly)) {
                std::fprintf(stderr, "%s: %s\n", qPrintable(path), qPrintable(file.errorString()));
                return EXIT_FAILURE;
            }
            const QByteArray bytes = file.readAll();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.constData()),
                                   static_cast<size_t>(bytes.size()));
            ++played;
        }
    }
    std::printf("%lld inputs\n", static_cast<long long>(played));
    // No input would be no test.
    return played > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
