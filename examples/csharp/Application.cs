// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Net;
using System.Net.Sockets;
using System.Runtime.InteropServices;
using System.Text;
using System.Text.RegularExpressions;
using System.Threading;
#if MONO
using Mono.Unix;
using Mono.Unix.Native;
#endif

// An application: it follows the radios of a server, keeps a table of them, and connects anew by itself. For .NET 6 or
// later; with Mono: mcs -d:MONO -r:Mono.Posix Application.cs, then mono Application.exe HOST PORT [report=ESN@ADDRESS]
sealed class Application
{
    const string Usage = @"usage: Application HOST PORT [report=ESN@ADDRESS]
  report=0011AABB22CC33DD@127.0.0.2  tells the server, once, that this radio cannot be reached at this address";

    // Bytes in and out, nothing else. An ESN is its 16 hexadecimal digits: they sort as its bytes do.
    internal static class Codec
    {
        const byte Version = 4, NoticeType = 1, ReportType = 2;
        const int HeaderSize = 8, LargestPayload = 277;

        // Header: "QMRA", version (1 byte), type (1), length of the payload (2). Payload: ESN (8), address (4). A
        // BinaryWriter writes integers as the protocol has them, the low byte first; an address is such an integer.
        internal static byte[] Report(string esn, string address)
        {
            var message = new MemoryStream();
            var writer = new BinaryWriter(message);
            writer.Write(Encoding.ASCII.GetBytes("QMRA"));
            writer.Write(Version);
            writer.Write(ReportType);
            writer.Write((ushort)12);
            writer.Write(Enumerable.Range(0, 8).Select(i => Convert.ToByte(esn.Substring(2 * i, 2), 16)).ToArray());
            writer.Write(Enumerable.Reverse(IPAddress.Parse(address).GetAddressBytes()).ToArray());
            return message.ToArray();
        }

        // Takes whole messages off the front of what was received and gives the notices among them; what TCP has
        // delivered may end anywhere, so the rest stays for the next time.
        internal static IEnumerable<Notice> TakeNotices(List<byte> received)
        {
            while (received.Count >= HeaderSize)
            {
                var header = new BinaryReader(new MemoryStream(received.GetRange(0, HeaderSize).ToArray()));
                string magic = Encoding.ASCII.GetString(header.ReadBytes(4));
                byte version = header.ReadByte();
                byte type = header.ReadByte();
                int length = header.ReadUInt16();
                if (magic != "QMRA" || version != Version || length > LargestPayload)
                {
                    // Nothing tells where the next one begins.
                    throw new InvalidDataException("not a message of this protocol");
                }
                if (received.Count < HeaderSize + length)
                {
                    yield break;
                }
                byte[] payload = received.GetRange(HeaderSize, length).ToArray();
                received.RemoveRange(0, HeaderSize + length);
                if (type == NoticeType) // a later server may have more to say: other types are skipped
                {
                    yield return new Notice(payload);
                }
            }
        }
    }

    internal sealed class Notice
    {
        const int Size = 22; // without services
        static readonly string[] States = { "gone", "unreachable", "unconfirmed", "registered" };

        internal readonly string Esn, Suid;
        internal readonly byte Pending, Availability;
        internal readonly IPAddress Address;
        internal readonly string Services;

        // ESN (8 bytes), SUID (7), pending (1), address (4), availability (1), count of services (1), services.
        internal Notice(byte[] payload)
        {
            if (payload.Length < Size || payload.Length != Size + payload[Size - 1])
            {
                throw new InvalidDataException("a notice whose length and service count disagree");
            }
            Esn = BitConverter.ToString(payload, 0, 8).Replace("-", "");
            Suid = BitConverter.ToString(payload, 8, 7).Replace("-", "");
            Pending = payload[15];
            Address = new IPAddress(Enumerable.Reverse(payload.Skip(16).Take(4)).ToArray());
            Availability = payload[20];
            Services = Size < payload.Length ? string.Join(",", payload.Skip(Size)) : "-";
        }

        internal string State =>
            Pending != 0 ? "pending" : Availability < States.Length ? States[Availability] : Availability.ToString();

        // Whether the radio is in no table any more.
        internal bool Removes => Pending == 0 && Availability == 0;
    }

    static readonly TimeSpan FirstPause = TimeSpan.FromSeconds(1); // before the next attempt to connect
    static readonly TimeSpan LongestPause = TimeSpan.FromSeconds(60);
    static readonly TimeSpan Connecting = TimeSpan.FromSeconds(10); // that an attempt may take
    static readonly TimeSpan Silence = TimeSpan.FromSeconds(2); // that ends a table: it is told without pauses

    const string UpTo255 = "(?:25[0-5]|2[0-4][0-9]|1[0-9]{2}|[1-9]?[0-9])";
    static readonly Regex ReportSetting =
        new Regex(@"\Areport=([0-9A-Fa-f]{16})@(" + UpTo255 + @"(?:\." + UpTo255 + @"){3})\z");

    readonly string host;
    readonly int port;
    readonly Random random = new Random();
    string[] toReport; // ESN and address; null: nothing, or it was reported
    TimeSpan pause = FirstPause;
    // The old table is in use until a new one is complete.
    readonly SortedDictionary<string, Notice> table = new SortedDictionary<string, Notice>(StringComparer.Ordinal);
    SortedSet<string> told; // the ESNs of the new table so far; null: it is complete

    // Throws FormatException for what cannot be understood.
    Application(string[] words)
    {
        if (words.Length < 2 || !Regex.IsMatch(words[1], @"\A[0-9]{1,5}\z"))
        {
            throw new FormatException();
        }
        host = words[0];
        port = int.Parse(words[1]);
        if (port < 1 || port > 65535)
        {
            throw new FormatException();
        }
        foreach (string setting in words.Skip(2))
        {
            Match match = ReportSetting.Match(setting);
            if (!match.Success)
            {
                throw new FormatException();
            }
            toReport = new[] { match.Groups[1].Value.ToUpperInvariant(), match.Groups[2].Value };
        }
    }

    void Run()
    {
        while (true)
        {
            try
            {
                using (var connection = new Socket(AddressFamily.InterNetwork, SocketType.Stream, ProtocolType.Tcp))
                {
                    Follow(connection);
                }
            }
            catch (Exception reason) when (reason is SocketException || reason is InvalidDataException)
            {
                Say("disconnected: " + reason.Message);
            }
            // Drawn by lot, so that a thousand applications do not come at once when a server is back.
            Thread.Sleep(TimeSpan.FromSeconds(pause.TotalSeconds * (1 + random.NextDouble()) / 2));
            pause = pause < LongestPause - pause ? pause + pause : LongestPause;
        }
    }

    // One connection, for as long as it lasts.
    void Follow(Socket connection)
    {
        IAsyncResult attempt = connection.BeginConnect(host, port, null, null);
        if (!attempt.AsyncWaitHandle.WaitOne(Connecting))
        {
            throw new SocketException((int)SocketError.TimedOut);
        }
        connection.EndConnect(attempt);
        Say("connected to " + host + ":" + port);
        NoticeCutConnection(connection);
        told = new SortedSet<string>(StringComparer.Ordinal);
        var received = new List<byte>();
        var data = new byte[65536];
        var silent = Stopwatch.StartNew();
        while (true)
        {
            // A quiet server is healthy: once the table is complete, there is no end to the wait (-1).
            double left = Math.Max(0, (Silence - silent.Elapsed).TotalMilliseconds);
            if (!connection.Poll(told == null ? -1 : (int)(left * 1000), SelectMode.SelectRead))
            {
                Complete(connection);
                continue;
            }
            int count = connection.Receive(data);
            if (count == 0)
            {
                throw new InvalidDataException("the server has closed the connection");
            }
            received.AddRange(data.Take(count));
            foreach (Notice notice in Codec.TakeNotices(received))
            {
                silent.Restart();
                Take(notice, connection);
            }
        }
    }

    void Take(Notice notice, Socket connection)
    {
        // A table is told in the order of the ESNs and has no mark at its end. What is out of order is a change.
        if (told != null && told.Count > 0 && string.CompareOrdinal(notice.Esn, told.Max) <= 0)
        {
            Complete(connection);
        }
        told?.Add(notice.Esn);
        if (notice.Removes)
        {
            table.Remove(notice.Esn);
        }
        else
        {
            table[notice.Esn] = notice;
        }
        Say(notice.Esn + " " + notice.State + " " + notice.Address + " " + notice.Services);
    }

    void Complete(Socket connection)
    {
        foreach (string esn in table.Keys.Where(esn => !told.Contains(esn)).ToList())
        {
            table.Remove(esn);
            Say(esn + " left");
        }
        told = null;
        pause = FirstPause;
        Say("table complete: " + table.Count + " radios");
        if (toReport != null)
        {
            connection.Send(Codec.Report(toReport[0], toReport[1]));
            Say("reported " + toReport[0] + " at " + toReport[1]);
            toReport = null;
        }
    }

    // A server whose network is cut off says nothing, like one where nothing happens. TCP asks in the silence; but not
    // while a report is on its way: for that it has a patience of its own, of many minutes.
    static void NoticeCutConnection(Socket connection)
    {
        connection.SetSocketOption(SocketOptionLevel.Socket, SocketOptionName.KeepAlive, true);
        try
        {
            // Windows, and Mono: on (1), milliseconds of silence, milliseconds between probes. There are nine or ten,
            // as the system has it, not three; one each second makes it half a minute all the same.
            byte[] values = new[] { 1, 20000, 1000 }.SelectMany(BitConverter.GetBytes).ToArray();
            connection.IOControl(IOControlCode.KeepAliveValues, values, null);
        }
        catch (PlatformNotSupportedException)
        {
            // .NET elsewhere. It calls them TcpKeepAliveTime, TcpKeepAliveInterval (both in seconds), and
            // TcpKeepAliveRetryCount.
            connection.SetSocketOption(SocketOptionLevel.Tcp, (SocketOptionName)3, 20);
            connection.SetSocketOption(SocketOptionLevel.Tcp, (SocketOptionName)17, 5);
            connection.SetSocketOption(SocketOptionLevel.Tcp, (SocketOptionName)16, 3);
        }
    }

    static void Say(string text) => Console.WriteLine(text); // each line leaves at once

    // Until Ctrl-C, or a signal that asks for an end.
    static void RunUntilStopped(ThreadStart run)
    {
        var thread = new Thread(run) { IsBackground = true };
#if MONO
        UnixSignal[] signals = { new UnixSignal(Signum.SIGINT), new UnixSignal(Signum.SIGTERM) };
        thread.Start();
        while (!signals.Any(signal => signal.IsSet))
        {
            UnixSignal.WaitAny(signals, 1000); // a signal that comes between two waits ends none
        }
        Stdlib._Exit(0); // Mono itself may wait at its end for the other thread, which waits for the server
#else
        using (var stop = new ManualResetEvent(false))
        {
            Action<PosixSignalContext> handle = context =>
            {
                context.Cancel = true; // what the system would do
                stop.Set();
            };
            using (PosixSignalRegistration.Create(PosixSignal.SIGINT, handle))
            using (PosixSignalRegistration.Create(PosixSignal.SIGTERM, handle))
            {
                thread.Start();
                stop.WaitOne();
            }
        }
#endif
    }

    static int Main(string[] words)
    {
        try
        {
            RunUntilStopped(new Application(words).Run);
            return 0;
        }
        catch (FormatException)
        {
            Console.Error.WriteLine(Usage);
            return 2;
        }
    }
}
