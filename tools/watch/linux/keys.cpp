// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/keys.h"

#include "tools/watch/linux/keysequence.h"

#include <QSocketNotifier>
#include <QTimer>

#include <termios.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <utility>

namespace WatchTool {

namespace {

constexpr int EscapePause = 100; // ms; the rest of a sequence comes sooner, also from afar

class TerminalKeys : public Keys
{
public:
    explicit TerminalKeys(OnKey newOnKey);
    ~TerminalKeys() override { TerminalKeys::end(); }
    Q_DISABLE_COPY_MOVE(TerminalKeys)

    void begin() override;
    void end() override;

private:
    void read();
    void tell(const QList<Key> &keys) const;

    const OnKey onKey;
    std::optional<termios> former; // as it was when the keyboard was taken first
    KeySequence sequence;
    QSocketNotifier notifier{STDIN_FILENO, QSocketNotifier::Read};
    QTimer pause; // after what may be the beginning of a sequence
    bool isTaken = false;
};

TerminalKeys::TerminalKeys(OnKey newOnKey) : onKey(std::move(newOnKey))
{
    notifier.setEnabled(false);
    QObject::connect(&notifier, &QSocketNotifier::activated, &notifier, [this] { read(); });
    pause.setSingleShot(true);
    pause.setInterval(EscapePause);
    QObject::connect(&pause, &QTimer::timeout, &pause, [this] { tell(sequence.end()); });
}

void TerminalKeys::begin()
{
    termios settings{};
    if (!former) {
        if (::tcgetattr(STDIN_FILENO, &settings) != 0) {
            return;
        }
        former = settings;
    }
    settings = *former;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    settings.c_cc[VQUIT] = _POSIX_VDISABLE; // it would leave the terminal as it is
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &settings);
    isTaken = true;
    notifier.setEnabled(true);
}

void TerminalKeys::end()
{
    notifier.setEnabled(false);
    pause.stop();
    sequence.end();
    // In the background the terminal is another's, and to touch it would stop the process.
    const pid_t group = ::tcgetpgrp(STDIN_FILENO);
    if (std::exchange(isTaken, false) && (group < 0 || group == ::getpgrp())) {
        ::tcsetattr(STDIN_FILENO, TCSADRAIN, &*former);
    }
}

void TerminalKeys::read()
{
    std::array<char, 256> bytes;
    const ssize_t size = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    if (size <= 0) {
        notifier.setEnabled(false); // the terminal is no more
        return;
    }
    pause.stop();
    const QList<Key> keys = sequence.take(QByteArray(bytes.data(), size));
    if (sequence.isWaiting()) {
        pause.start();
    }
    tell(keys);
}

void TerminalKeys::tell(const QList<Key> &keys) const
{
    for (const Key &key : keys) {
        onKey(key);
    }
}

} // namespace

std::unique_ptr<Keys> Keys::create(OnKey onKey)
{
    return ::isatty(STDIN_FILENO) == 1 ? std::make_unique<TerminalKeys>(std::move(onKey)) : nullptr;
}

} // namespace WatchTool
