// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.net.ProtocolException;
import java.nio.ByteBuffer;
import java.util.StringJoiner;

/** Calls the codec of the Java examples: a line in, a line out, as codec.py tells. */
public final class Vectors {
    private Vectors() {
    }

    private static byte[] bytes(String digits) {
        byte[] bytes = new byte[digits.equals("-") ? 0 : digits.length() / 2];
        for (int i = 0; i < bytes.length; ++i) {
            bytes[i] = (byte) Integer.parseInt(digits.substring(2 * i, 2 * i + 2), 16);
        }
        return bytes;
    }

    private static String hex(byte[] bytes) {
        StringBuilder digits = new StringBuilder();
        for (byte value : bytes) {
            digits.append(String.format("%02X", value));
        }
        return digits.toString();
    }

    private static String datagram(String digits) {
        Radio.Message message = Radio.Codec.decode(bytes(digits));
        if (message == null) {
            return "invalid";
        }
        boolean isRequest = message.opcode == Radio.Codec.DISCOVERY_REQUEST;
        return (isRequest ? "discovery request " : "acknowledgement ") + message.esn;
    }

    private static String stream(String[] words) {
        StringJoiner outcomes = new StringJoiner("; ");
        ByteBuffer received = ByteBuffer.allocate(65536);
        try {
            for (int i = 1; i < words.length; ++i) {
                received.put(bytes(words[i])).flip();
                Application.Notice notice;
                while ((notice = Application.Codec.takeNotice(received)) != null) {
                    outcomes.add(String.join(" ", "notice", notice.esn, notice.suid, Integer.toString(notice.pending),
                        notice.address, Integer.toString(notice.availability), notice.services, notice.state()));
                }
                received.compact();
            }
        } catch (ProtocolException lost) {
            outcomes.add("lost");
        }
        return outcomes.toString();
    }

    private static String answer(String[] words) {
        switch (words[0]) {
            case "registration":
                return hex(Radio.Codec.registration(words[1], words[2], Integer.parseInt(words[3]),
                    Radio.codes(words[4].replace("-", ""))));
            case "deregistration":
                return hex(Radio.Codec.deregistration(words[1]));
            case "datagram":
                return datagram(words[1]);
            case "report":
                return hex(Application.Codec.report(words[1], words[2]));
            case "stream":
                return stream(words);
            default:
                throw new IllegalArgumentException(words[0]);
        }
    }

    public static void main(String[] none) throws IOException {
        BufferedReader input = new BufferedReader(new InputStreamReader(System.in));
        for (String line; (line = input.readLine()) != null;) {
            System.out.println(answer(line.split(" ")));
        }
    }
}
