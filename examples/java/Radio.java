// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import java.io.IOException;
import java.net.DatagramPacket;
import java.net.DatagramSocket;
import java.net.InetSocketAddress;
import java.net.SocketException;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.HashMap;
import java.util.Locale;
import java.util.Map;
import java.util.concurrent.ThreadLocalRandom;
import java.util.function.BiPredicate;

/**
 * A radio: it registers with a server, keeps its registration, and deregisters when it is ended (Ctrl-C). Java 11 or
 * later; nothing has to be compiled: {@code java Radio.java HOST PORT [name=value ...]}
 */
public final class Radio {
    private static final String USAGE = "usage: java Radio.java HOST PORT [name=value ...]\n"
        + "  esn=0011AABB22CC33DD  16 hexadecimal digits; all zero: the server makes one\n"
        + "  suid=123456789ABCDE   14 hexadecimal digits: WACN (5), System (3), Unit (6)\n"
        + "  services=1,3          codes from 0 to 255, at most 255 of them; may be empty\n"
        + "  pending=0             1: the registration awaits confirmation\n"
        + "  local=0.0.0.0:PORT    address and port of the radio; PORT is the server's\n"
        + "  period=21600          seconds between registrations, at most 999999; when pending: 10";

    /** Bytes in and out, nothing else. ESN and SUID are hexadecimal digits. */
    static final class Codec {
        static final int ACKNOWLEDGEMENT = 2;
        static final int DEREGISTRATION = 3;
        static final int DISCOVERY_REQUEST = 4;
        static final int EXTENDED_REGISTRATION = 5;

        private static final int VERSION = 3;
        private static final int HEADER_SIZE = 16;

        private Codec() {
        }

        /** Header: "QMRS", version (1 byte), ESN (8), opcode (1), length of the payload (2, the low byte first). */
        private static byte[] datagram(String esn, int opcode, byte[] payload) {
            return ByteBuffer.allocate(HEADER_SIZE + payload.length).put("QMRS".getBytes(StandardCharsets.US_ASCII))
                .put((byte) VERSION).putLong(Long.parseUnsignedLong(esn, 16)).put((byte) opcode)
                .put((byte) payload.length).put((byte) (payload.length >> 8)).put(payload).array();
        }

        /** Payload: SUID (7 bytes), pending (1), count of services (1), services. */
        static byte[] registration(String esn, String suid, int pending, byte[] services) {
            ByteBuffer payload = ByteBuffer.allocate(9 + services.length);
            payload.putLong(Long.parseLong(suid, 16) << 8 | pending); // both together have as many bytes
            payload.put((byte) services.length).put(services);
            return datagram(esn, EXTENDED_REGISTRATION, payload.array());
        }

        static byte[] deregistration(String esn) {
            return datagram(esn, DEREGISTRATION, new byte[0]);
        }

        /** What a server sends to a radio; null for anything else: whoever reaches the port can send to it. */
        static Message decode(byte[] data) {
            if (data.length < HEADER_SIZE || !new String(data, 0, 4, StandardCharsets.US_ASCII).equals("QMRS")) {
                return null;
            }
            int opcode = data[13];
            int length = Byte.toUnsignedInt(data[14]) | Byte.toUnsignedInt(data[15]) << 8;
            boolean isWhole = data.length == HEADER_SIZE + length
                && (opcode == ACKNOWLEDGEMENT && length == 1 || opcode == DISCOVERY_REQUEST && length == 0);
            if (data[4] < 1 || data[4] > VERSION || !isWhole) {
                return null;
            }
            return new Message(String.format("%016X", ByteBuffer.wrap(data).getLong(5)), opcode);
        }
    }

    static final class Message {
        final String esn;
        final int opcode;

        Message(String esn, int opcode) {
            this.esn = esn;
            this.opcode = opcode;
        }
    }

    private static final String UP_TO_255 = "(25[0-5]|2[0-4][0-9]|1[0-9]{2}|[1-9]?[0-9])";
    private static final Map<String, String> PATTERNS = Map.of("esn", "[0-9A-Fa-f]{16}", "suid", "[0-9A-Fa-f]{14}",
        "services", "(" + UP_TO_255 + "(," + UP_TO_255 + "){0,254})?", "pending", "[01]",
        "local", UP_TO_255 + "(\\." + UP_TO_255 + "){3}:[0-9]{1,5}", "period", "[1-9][0-9]{0,5}");
    private static final long FIRST_WAIT = 2000; // ms for an acknowledgement
    private static final long LONGEST_WAIT = 60000;
    private static final String NO_ESN = "0000000000000000";

    private final String host;
    private final int port;
    private final String suid;
    private final int pending;
    private final byte[] services;
    private final InetSocketAddress local;
    private final long period; // ms
    private final long longestWait;
    private String esn;
    private InetSocketAddress server; // its address, as soon as it is known
    private volatile int exitCode; // 1 after a failure, so that a service manager starts the radio again
    // One socket for everything. It is not connected: acknowledgements come from the port that a registration was sent
    // to, but discovery requests may come from any port of the server.
    private DatagramSocket socket;

    private Radio(String[] words) {
        require(words.length >= 2 && words[1].matches("[0-9]{1,5}"));
        host = words[0];
        port = Integer.parseInt(words[1]);
        require(port >= 1 && port <= 65535);
        Map<String, String> values = new HashMap<>();
        for (String setting : Arrays.asList(words).subList(2, words.length)) {
            String[] parts = setting.split("=", 2);
            require(parts.length == 2 && PATTERNS.containsKey(parts[0]) && parts[1].matches(PATTERNS.get(parts[0])));
            values.put(parts[0], parts[1]);
        }
        esn = values.getOrDefault("esn", "0011AABB22CC33DD").toUpperCase(Locale.ROOT);
        suid = values.getOrDefault("suid", "123456789ABCDE").toUpperCase(Locale.ROOT);
        services = codes(values.getOrDefault("services", "1,3"));
        pending = Integer.parseInt(values.getOrDefault("pending", "0"));
        // Discovery requests come to the server's own port number.
        String[] ends = values.getOrDefault("local", "0.0.0.0:" + port).split(":");
        local = new InetSocketAddress(ends[0], Integer.parseInt(ends[1])); // refuses a port beyond 65535 itself
        // A registration has to be made at least every 12 hours; a pending one lapses after 17 seconds.
        period = 1000L * Integer.parseInt(values.getOrDefault("period", pending == 1 ? "10" : "21600"));
        // It may be the acknowledgement that is lost: a pending registration is not to lapse meanwhile.
        longestWait = pending == 1 ? Math.min(period, LONGEST_WAIT) : LONGEST_WAIT;
    }

    private static void require(boolean isRight) {
        if (!isRight) {
            throw new IllegalArgumentException();
        }
    }

    static byte[] codes(String list) {
        String[] texts = list.isEmpty() ? new String[0] : list.split(",");
        byte[] codes = new byte[texts.length];
        for (int i = 0; i < codes.length; ++i) {
            codes[i] = (byte) Integer.parseInt(texts[i]);
        }
        return codes;
    }

    private void run() {
        Runtime.getRuntime().addShutdownHook(new Thread(this::stop));
        try {
            while (true) {
                register();
                if (await(period, this::isDiscoveryRequest)) {
                    say("discovery request");
                }
            }
        } finally {
            exitCode = 1; // nothing but a failure leads here
        }
    }

    private void register() {
        say("registering " + esn + " with " + host + ":" + port);
        long longest = Math.min(FIRST_WAIT, longestWait);
        while (true) {
            send(Codec.registration(esn, suid, pending, services));
            // Each wait is drawn by lot, so that a thousand radios do not march in step after a power cut. To register
            // twice does no harm: it may be the acknowledgement that was lost.
            if (await(ThreadLocalRandom.current().nextLong(longest / 2, longest + 1), this::isAcknowledgement)) {
                break;
            }
            say("no acknowledgement, again");
            longest = Math.min(2 * longest, longestWait);
        }
        esn = ownEsn();
        say("registered as " + esn);
    }

    /** A radio that has no ESN is known by the one that the server makes. */
    private String ownEsn() {
        return esn.equals(NO_ESN) ? "F1" + suid : esn;
    }

    private boolean isAcknowledgement(Message message, InetSocketAddress sender) {
        return message.opcode == Codec.ACKNOWLEDGEMENT && message.esn.equals(ownEsn()) && sender.equals(server);
    }

    private boolean isDiscoveryRequest(Message message, InetSocketAddress sender) {
        return message.opcode == Codec.DISCOVERY_REQUEST && message.esn.equals(esn)
            && sender.getAddress().equals(server.getAddress());
    }

    /** Whether a message that is wanted has come. What else arrives neither ends nor lengthens the wait. */
    private boolean await(long milliseconds, BiPredicate<Message, InetSocketAddress> wanted) {
        long deadline = System.nanoTime() + milliseconds * 1000000;
        while (true) {
            long left = (deadline - System.nanoTime()) / 1000000;
            if (left <= 0) {
                return false;
            }
            DatagramPacket packet = new DatagramPacket(new byte[2048], 2048);
            try {
                socket.setSoTimeout((int) left);
                socket.receive(packet);
            } catch (IOException reason) {
                continue; // too late, or an earlier datagram reached nobody (ICMP): as good as no answer
            }
            Message message = Codec.decode(Arrays.copyOf(packet.getData(), packet.getLength()));
            if (message != null && wanted.test(message, (InetSocketAddress) packet.getSocketAddress())) {
                return true;
            }
        }
    }

    // One thread speaks at a time: nothing follows what stop() says.
    private synchronized void send(byte[] data) {
        try {
            // Looked up each time: the server may have moved, and the name service may be back later than the radio.
            InetSocketAddress found = new InetSocketAddress(host, port);
            if (!found.isUnresolved()) {
                server = found; // else the last known address serves
            }
            if (server != null) {
                socket.send(new DatagramPacket(data, data.length, server));
            }
        } catch (IOException | IllegalArgumentException reason) {
            // No network, or an address that cannot be sent to: what counts is whether an acknowledgement comes.
        }
    }

    private synchronized void say(String text) {
        System.out.println(text); // each line leaves at once
    }

    /** In a thread of its own, at a signal or a failure. With halt() the exit code is not that of the signal. */
    private synchronized void stop() {
        // With no ESN it would end whatever radio the server has at this address.
        send(Codec.deregistration(ownEsn())); // it is not answered, so there is nothing to wait for
        say("deregistered");
        Runtime.getRuntime().halt(exitCode);
    }

    public static void main(String[] words) {
        Radio radio = null;
        try {
            radio = new Radio(words);
            radio.socket = new DatagramSocket(radio.local);
        } catch (IllegalArgumentException wrong) {
            System.err.println(USAGE);
            System.exit(2);
        } catch (SocketException reason) {
            System.err.println("cannot listen: " + reason.getMessage());
            System.exit(1);
        }
        radio.run();
    }
}
