// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the applications of a crowd do. Each function but the first goes on until the server has gone.
#pragma once

#include <QByteArray>

#include <functional>
#include <vector>

// Descriptors. A failure ends the run.
std::vector<int> connectAll(quint16 port, int count);

void trickle(const std::vector<int> &members);
// content: whole messages, sent over and over.
void flood(const std::vector<int> &members, const QByteArray &content);
void takeSlowly(const std::vector<int> &members);
// counted is called once, when so many have been.
void comeAndGo(quint16 port, int count, const std::function<void()> &counted);

// Of the type that the server accepts and ignores: the shortest and the longest.
QByteArray validMessages();
