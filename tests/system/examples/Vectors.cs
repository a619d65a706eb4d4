// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

using System;
using System.Collections.Generic;
using System.IO;
using System.Linq;

// Calls the codec of the C# examples: a line in, a line out, as codec.py tells.
static class Vectors
{
    static byte[] Bytes(string digits) => Radio.Codec.Bytes(digits == "-" ? "" : digits);

    static string Datagram(string digits)
    {
        Radio.Message message = Radio.Codec.Decode(Bytes(digits));
        if (message == null)
        {
            return "invalid";
        }
        bool isRequest = message.Opcode == Radio.Codec.DiscoveryRequest;
        return (isRequest ? "discovery request " : "acknowledgement ") + message.Esn;
    }

    static string Stream(IEnumerable<string> pieces)
    {
        var outcomes = new List<string>();
        var received = new List<byte>();
        try
        {
            foreach (string piece in pieces)
            {
                received.AddRange(Bytes(piece));
                foreach (Application.Notice notice in Application.Codec.TakeNotices(received))
                {
                    outcomes.Add(string.Join(" ", "notice", notice.Esn, notice.Suid, notice.Pending, notice.Address,
                                             notice.Availability, notice.Services, notice.State));
                }
            }
        }
        catch (InvalidDataException)
        {
            outcomes.Add("lost");
        }
        return string.Join("; ", outcomes);
    }

    static string Answer(string[] words)
    {
        switch (words[0])
        {
            case "registration":
                return Radio.Codec.Digits(Radio.Codec.Registration(words[1], words[2], byte.Parse(words[3]),
                                                                   Radio.Codes(words[4].Replace("-", ""))));
            case "deregistration":
                return Radio.Codec.Digits(Radio.Codec.DeregistrationOf(words[1]));
            case "datagram":
                return Datagram(words[1]);
            case "report":
                return Radio.Codec.Digits(Application.Codec.Report(words[1], words[2]));
            case "stream":
                return Stream(words.Skip(1));
            default:
                throw new ArgumentException(words[0]);
        }
    }

    static void Main()
    {
        for (string line; (line = Console.ReadLine()) != null;)
        {
            Console.WriteLine(Answer(line.Split(' ')));
        }
    }
}
