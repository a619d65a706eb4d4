// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

using System;

// What the C# examples use of .NET and Mono does not have: enough to compile them, nothing that works.
namespace System.Runtime.InteropServices
{
    enum PosixSignal
    {
        SIGINT,
        SIGTERM
    }

    sealed class PosixSignalContext
    {
        public bool Cancel { get; set; }
    }

    sealed class PosixSignalRegistration : IDisposable
    {
        public static PosixSignalRegistration Create(PosixSignal signal, Action<PosixSignalContext> handler)
        {
            throw new PlatformNotSupportedException();
        }

        public void Dispose()
        {
        }
    }
}
