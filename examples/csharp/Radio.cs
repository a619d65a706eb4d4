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

// A radio: it registers with a server, keeps its registration, and deregisters when it is ended (Ctrl-C). For .NET 6 or
// later; with Mono: mcs -d:MONO -r:Mono.Posix Radio.cs, then mono Radio.exe HOST PORT [name=value ...]
sealed class Radio
{
    const string Usage = @"usage: Radio HOST PORT [name=value ...]
  esn=0011AABB22CC33DD  16 hexadecimal digits; all zero: the server makes one
  suid=123456789ABCDE   14 hexadecimal digits: WACN (5), System (3), Unit (6)
  services=1,3          codes from 0 to 255, at most 255 of them; may be empty
  pending=0             1: the registration awaits confirmation
  local=0.0.0.0:PORT    address and port of the radio; PORT is the server's
  period=21600          seconds between registrations, at most 999999; when pending: 10";

    // Bytes in and out, nothing else. ESN and SUID are hexadecimal digits.
    internal static class Codec
    {
        internal const byte Acknowledgement = 2, Deregistration = 3, DiscoveryRequest = 4, ExtendedRegistration = 5;

        const byte Version = 3;
        const int HeaderSize = 16;

        // Header: "QMRS", version (1 byte), ESN (8), opcode (1), length of the payload (2). A BinaryWriter writes
        // integers as the protocol has them, the low byte first.
        static byte[] Datagram(string esn, byte opcode, byte[] payload)
        {
            var datagram = new MemoryStream();
            var writer = new BinaryWriter(datagram);
            writer.Write(Encoding.ASCII.GetBytes("QMRS"));
            writer.Write(Version);
            writer.Write(Bytes(esn));
            writer.Write(opcode);
            writer.Write((ushort)payload.Length);
            writer.Write(payload);
            return datagram.ToArray();
        }

        // Payload: SUID (7 bytes), pending (1), count of services (1), services.
        internal static byte[] Registration(string esn, string suid, byte pending, byte[] services)
        {
            var counted = new[] { pending, (byte)services.Length };
            return Datagram(esn, ExtendedRegistration, Bytes(suid).Concat(counted).Concat(services).ToArray());
        }

        internal static byte[] DeregistrationOf(string esn) => Datagram(esn, Deregistration, new byte[0]);

        // What a server sends to a radio; null for anything else: whoever reaches the port can send to it.
        internal static Message Decode(byte[] data)
        {
            if (data.Length < HeaderSize)
            {
                return null;
            }
            var reader = new BinaryReader(new MemoryStream(data));
            string magic = Encoding.ASCII.GetString(reader.ReadBytes(4));
            byte version = reader.ReadByte();
            string esn = Digits(reader.ReadBytes(8));
            byte opcode = reader.ReadByte();
            int length = reader.ReadUInt16();
            bool isWhole = data.Length == HeaderSize + length
                && (opcode == Acknowledgement && length == 1 || opcode == DiscoveryRequest && length == 0);
            return magic == "QMRS" && version >= 1 && version <= Version && isWhole ? new Message(esn, opcode) : null;
        }

        internal static byte[] Bytes(string digits) => Enumerable.Range(0, digits.Length / 2)
            .Select(i => Convert.ToByte(digits.Substring(2 * i, 2), 16)).ToArray();

        internal static string Digits(byte[] bytes) => BitConverter.ToString(bytes).Replace("-", "");
    }

    internal sealed class Message
    {
        internal readonly string Esn;
        internal readonly byte Opcode;

        internal Message(string esn, byte opcode)
        {
            Esn = esn;
            Opcode = opcode;
        }
    }

    const string UpTo255 = "(25[0-5]|2[0-4][0-9]|1[0-9]{2}|[1-9]?[0-9])";
    static readonly Dictionary<string, string> Patterns = new Dictionary<string, string>
    {
        { "esn", "[0-9A-Fa-f]{16}" }, { "suid", "[0-9A-Fa-f]{14}" }, { "pending", "[01]" },
        { "services", "(" + UpTo255 + "(," + UpTo255 + "){0,254})?" }, { "period", "[1-9][0-9]{0,5}" },
        { "local", UpTo255 + @"(\." + UpTo255 + "){3}:[0-9]{1,5}" }
    };
    static readonly TimeSpan FirstWait = TimeSpan.FromSeconds(2); // for an acknowledgement
    static readonly TimeSpan LongestWait = TimeSpan.FromSeconds(60);
    const string NoEsn = "0000000000000000";

    readonly string host;
    readonly int port;
    readonly string suid;
    readonly byte pending;
    readonly byte[] services;
    readonly IPEndPoint local;
    readonly TimeSpan period;
    readonly TimeSpan longestWait;
    readonly Random random = new Random();
    readonly object speaking = new object();
    // One socket for everything. It is not connected: acknowledgements come from the port that a registration was sent
    // to, but discovery requests may come from any port of the server.
    readonly Socket socket = new Socket(AddressFamily.InterNetwork, SocketType.Dgram, ProtocolType.Udp);
    string esn;
    IPEndPoint server; // its address, as soon as it is known

    // Throws FormatException for what cannot be understood.
    Radio(string[] words)
    {
        Require(words.Length >= 2 && Regex.IsMatch(words[1], @"\A[0-9]{1,5}\z"));
        host = words[0];
        port = int.Parse(words[1]);
        var values = new Dictionary<string, string>
        {
            { "esn", "0011AABB22CC33DD" }, { "suid", "123456789ABCDE" }, { "services", "1,3" }, { "pending", "0" },
            { "local", "0.0.0.0:" + port } // discovery requests come to the server's own port number
        };
        foreach (string setting in words.Skip(2))
        {
            string[] parts = setting.Split(new[] { '=' }, 2);
            Require(parts.Length == 2 && Patterns.ContainsKey(parts[0]));
            Require(Regex.IsMatch(parts[1], @"\A" + Patterns[parts[0]] + @"\z"));
            values[parts[0]] = parts[1];
        }
        esn = values["esn"].ToUpperInvariant();
        suid = values["suid"].ToUpperInvariant();
        services = Codes(values["services"]);
        pending = byte.Parse(values["pending"]);
        string[] ends = values["local"].Split(':');
        int localPort = int.Parse(ends[1]);
        Require(port >= 1 && port <= 65535 && localPort <= 65535);
        local = new IPEndPoint(IPAddress.Parse(ends[0]), localPort);
        // A registration has to be made at least every 12 hours; a pending one lapses after 17 seconds.
        string given = values.TryGetValue("period", out given) ? given : pending == 1 ? "10" : "21600";
        period = TimeSpan.FromSeconds(int.Parse(given));
        // It may be the acknowledgement that is lost: a pending registration is not to lapse meanwhile.
        longestWait = pending == 1 && period < LongestWait ? period : LongestWait;
    }

    static void Require(bool isRight)
    {
        if (!isRight)
        {
            throw new FormatException();
        }
    }

    internal static byte[] Codes(string list) =>
        list.Split(new[] { ',' }, StringSplitOptions.RemoveEmptyEntries).Select(byte.Parse).ToArray();

    void Run()
    {
        while (true)
        {
            Register();
            if (Wait(period, IsDiscoveryRequest))
            {
                Say("discovery request");
            }
        }
    }

    void Register()
    {
        Say("registering " + esn + " with " + host + ":" + port);
        TimeSpan longest = FirstWait < longestWait ? FirstWait : longestWait;
        while (true)
        {
            Send(Codec.Registration(esn, suid, pending, services));
            // Each wait is drawn by lot, so that a thousand radios do not march in step after a power cut. To register
            // twice does no harm: it may be the acknowledgement that was lost.
            var drawn = TimeSpan.FromSeconds(longest.TotalSeconds * (1 + random.NextDouble()) / 2);
            if (Wait(drawn, IsAcknowledgement))
            {
                break;
            }
            Say("no acknowledgement, again");
            longest = longest < longestWait - longest ? longest + longest : longestWait;
        }
        esn = OwnEsn();
        Say("registered as " + esn);
    }

    // A radio that has no ESN is known by the one that the server makes.
    string OwnEsn() => esn == NoEsn ? "F1" + suid : esn;

    bool IsAcknowledgement(Message message, IPEndPoint sender) =>
        message.Opcode == Codec.Acknowledgement && message.Esn == OwnEsn() && sender.Equals(server);

    bool IsDiscoveryRequest(Message message, IPEndPoint sender) =>
        message.Opcode == Codec.DiscoveryRequest && message.Esn == esn && sender.Address.Equals(server.Address);

    // Whether a message that is wanted has come. What else arrives neither ends nor lengthens the wait.
    bool Wait(TimeSpan time, Func<Message, IPEndPoint, bool> wanted)
    {
        var clock = Stopwatch.StartNew();
        var data = new byte[2048];
        while (clock.Elapsed < time)
        {
            EndPoint sender = new IPEndPoint(IPAddress.Any, 0);
            int size;
            try
            {
                double left = (time - clock.Elapsed).TotalMilliseconds;
                socket.ReceiveTimeout = (int)Math.Max(1, left); // 0 would be without an end
                size = socket.ReceiveFrom(data, ref sender);
            }
            catch (SocketException)
            {
                continue; // too late, or an earlier datagram reached nobody (ICMP): as good as no answer
            }
            Message message = Codec.Decode(data.Take(size).ToArray());
            if (message != null && wanted(message, (IPEndPoint)sender))
            {
                return true;
            }
        }
        return false;
    }

    void Send(byte[] data)
    {
        lock (speaking)
        {
            try
            {
                // Looked up each time: the server may have moved, and the name service be back later than the radio.
                IPAddress[] addresses = Dns.GetHostAddresses(host);
                server = new IPEndPoint(addresses.First(a => a.AddressFamily == AddressFamily.InterNetwork), port);
            }
            catch (Exception reason) when (reason is SocketException || reason is InvalidOperationException)
            {
                // No such name now: the last known address serves.
            }
            try
            {
                if (server != null)
                {
                    socket.SendTo(data, server);
                }
            }
            catch (SocketException)
            {
                // No network: what counts is whether an acknowledgement comes.
            }
        }
    }

    void Say(string text)
    {
        lock (speaking)
        {
            Console.WriteLine(text); // each line leaves at once
        }
    }

    void Stop()
    {
        Monitor.Enter(speaking); // for good: nothing follows
        // With no ESN it would end whatever radio the server has at this address.
        Send(Codec.DeregistrationOf(OwnEsn())); // it is not answered, so there is nothing to wait for
        Say("deregistered");
    }

    // Until Ctrl-C, or a signal that asks for an end.
    static void RunUntilStopped(ThreadStart run, Action stop)
    {
        var thread = new Thread(run) { IsBackground = true };
#if MONO
        UnixSignal[] signals = { new UnixSignal(Signum.SIGINT), new UnixSignal(Signum.SIGTERM) };
        thread.Start();
        while (!signals.Any(signal => signal.IsSet))
        {
            UnixSignal.WaitAny(signals, 1000); // a signal that comes between two waits ends none
        }
        stop();
        Stdlib._Exit(0); // Mono itself may wait at its end for the other thread, which waits for the server
#else
        using (var asked = new ManualResetEvent(false))
        {
            Action<PosixSignalContext> handle = context =>
            {
                context.Cancel = true; // what the system would do
                asked.Set();
            };
            using (PosixSignalRegistration.Create(PosixSignal.SIGINT, handle))
            using (PosixSignalRegistration.Create(PosixSignal.SIGTERM, handle))
            {
                thread.Start();
                asked.WaitOne();
                stop();
            }
        }
#endif
    }

    static int Main(string[] words)
    {
        try
        {
            var radio = new Radio(words);
            radio.socket.Bind(radio.local);
            RunUntilStopped(radio.Run, radio.Stop);
            return 0;
        }
        catch (FormatException)
        {
            Console.Error.WriteLine(Usage);
            return 2;
        }
        catch (SocketException reason)
        {
            Console.Error.WriteLine("cannot listen: " + reason.Message);
            return 1;
        }
    }
}
