// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/keys.h"

#include <QWinEventNotifier>

#include <windows.h>

#include <array>
#include <optional>
#include <utility>

namespace WatchTool {

namespace {

std::optional<Key> keyOf(const KEY_EVENT_RECORD &event)
{
    switch (event.wVirtualKeyCode) {
    case VK_UP:
        return Key{Key::Code::Up};
    case VK_DOWN:
        return Key{Key::Code::Down};
    case VK_PRIOR:
        return Key{Key::Code::PageUp};
    case VK_NEXT:
        return Key{Key::Code::PageDown};
    case VK_HOME:
        return Key{Key::Code::Home};
    case VK_END:
        return Key{Key::Code::End};
    case VK_RETURN:
        return Key{Key::Code::Enter};
    case VK_ESCAPE:
        return Key{Key::Code::Escape};
    case VK_BACK:
        return Key{Key::Code::Backspace};
    default:
        break;
    }
    const QChar character(event.uChar.UnicodeChar);
    return character >= u' ' && character <= u'~' ? std::optional(Key{Key::Code::Character, character})
                                                  : std::nullopt;
}

class ConsoleKeys : public Keys
{
public:
    ConsoleKeys(HANDLE newInput, OnKey newOnKey)
        : input(newInput), onKey(std::move(newOnKey)), notifier(newInput)
    {
        notifier.setEnabled(false);
        QObject::connect(&notifier, &QWinEventNotifier::activated, &notifier, [this] { read(); });
    }
    ~ConsoleKeys() override { ConsoleKeys::end(); }
    Q_DISABLE_COPY_MOVE(ConsoleKeys)

    void begin() override;
    void end() override;

private:
    void read();

    const HANDLE input;
    const OnKey onKey;
    QWinEventNotifier notifier;
    std::optional<DWORD> former;
};

void ConsoleKeys::begin()
{
    DWORD mode = 0;
    if (GetConsoleMode(input, &mode) == 0) {
        return;
    }
    former = former.value_or(mode);
    constexpr DWORD Lines = ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT | ENABLE_VIRTUAL_TERMINAL_INPUT;
    SetConsoleMode(input, (*former & ~Lines) | ENABLE_PROCESSED_INPUT); // Ctrl-C interrupts
    notifier.setEnabled(true);
}

void ConsoleKeys::end()
{
    notifier.setEnabled(false);
    if (former) {
        SetConsoleMode(input, *std::exchange(former, std::nullopt));
    }
}

// Nothing waits here: what there is has been counted.
void ConsoleKeys::read()
{
    std::array<INPUT_RECORD, 64> records;
    DWORD count = 0;
    if (GetNumberOfConsoleInputEvents(input, &count) == 0) {
        notifier.setEnabled(false); // the console is no more
        return;
    }
    if (count == 0 || ReadConsoleInputW(input, records.data(), records.size(), &count) == 0) {
        return;
    }
    for (DWORD i = 0; i < count; ++i) {
        const INPUT_RECORD &record = records.at(i);
        if (record.EventType != KEY_EVENT || record.Event.KeyEvent.bKeyDown == 0) {
            continue;
        }
        const std::optional<Key> key = keyOf(record.Event.KeyEvent);
        for (WORD pressed = 0; key && pressed < record.Event.KeyEvent.wRepeatCount; ++pressed) {
            onKey(*key);
        }
    }
}

} // namespace

std::unique_ptr<Keys> Keys::create(OnKey onKey)
{
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(input, &mode) != 0 ? std::make_unique<ConsoleKeys>(input, std::move(onKey))
                                             : nullptr;
}

} // namespace WatchTool
