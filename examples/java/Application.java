// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import static java.util.stream.Collectors.joining;

import java.io.IOException;
import java.net.InetSocketAddress;
import java.net.ProtocolException;
import java.net.Socket;
import java.net.SocketOption;
import java.net.SocketTimeoutException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.Arrays;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;
import java.util.TreeSet;
import java.util.concurrent.ThreadLocalRandom;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import jdk.net.ExtendedSocketOptions;

/**
 * An application: it follows the radios of a server, keeps a table of them, and connects anew by itself. Java 11 or
 * later; nothing has to be compiled: {@code java Application.java HOST PORT [report=ESN@ADDRESS]}
 */
public final class Application {

    /** Bytes in and out, nothing else. An ESN is its 16 hexadecimal digits: they sort as its bytes do. */
    static final class Codec {
        private static final int MAGIC = 0x41524D51; // "QMRA"
        private static final byte VERSION = 4;
        private static final byte NOTICE = 1;
        private static final byte REPORT = 2;
        private static final int HEADER_SIZE = 8;
        private static final int LARGEST_PAYLOAD = 277;

        private Codec() {
        }

        /** Header: "QMRA", version (1 byte), type (1), length of the payload (2). Payload: ESN (8), address (4). */
        static byte[] report(String esn, String address) {
            ByteBuffer message = ByteBuffer.allocate(HEADER_SIZE + 12).order(ByteOrder.LITTLE_ENDIAN);
            message.putInt(MAGIC).put(VERSION).put(REPORT).putShort((short) 12);
            message.order(ByteOrder.BIG_ENDIAN).putLong(Long.parseUnsignedLong(esn, 16)); // as it is written
            int number = 0;
            for (String part : address.split("\\.")) {
                number = number << 8 | Integer.parseInt(part);
            }
            return message.order(ByteOrder.LITTLE_ENDIAN).putInt(number).array();
        }

        /**
         * Takes whole messages off the front of what was received until one is a notice; null if none is. What TCP has
         * delivered may end anywhere, so the rest stays for the next time.
         */
        static Notice takeNotice(ByteBuffer received) throws ProtocolException {
            received.order(ByteOrder.LITTLE_ENDIAN);
            while (received.remaining() >= HEADER_SIZE) {
                int start = received.position();
                byte type = received.get(start + 5);
                int length = Short.toUnsignedInt(received.getShort(start + 6));
                if (received.getInt(start) != MAGIC || received.get(start + 4) != VERSION || length > LARGEST_PAYLOAD) {
                    throw new ProtocolException("not a message of this protocol"); // where would the next one begin?
                }
                if (received.remaining() < HEADER_SIZE + length) {
                    return null;
                }
                byte[] payload = new byte[length];
                received.position(start + HEADER_SIZE);
                received.get(payload);
                if (type == NOTICE) { // a later server may have more to say: other types are skipped
                    return new Notice(payload);
                }
            }
            return null;
        }
    }

    static final class Notice {
        private static final int SIZE = 22; // without services
        private static final String[] STATES = {"gone", "unreachable", "unconfirmed", "registered"};

        final String esn;
        final String suid;
        final int pending;
        final String address;
        final int availability;
        final String services;

        /** ESN (8 bytes), SUID (7), pending (1), address (4), availability (1), count of services (1), services. */
        Notice(byte[] payload) throws ProtocolException {
            int[] bytes = new int[payload.length];
            Arrays.setAll(bytes, i -> Byte.toUnsignedInt(payload[i]));
            if (bytes.length < SIZE || bytes.length != SIZE + bytes[SIZE - 1]) {
                throw new ProtocolException("a notice whose length and service count disagree");
            }
            esn = Arrays.stream(bytes, 0, 8).mapToObj(value -> String.format("%02X", value)).collect(joining());
            suid = Arrays.stream(bytes, 8, 15).mapToObj(value -> String.format("%02X", value)).collect(joining());
            pending = bytes[15];
            address = bytes[19] + "." + bytes[18] + "." + bytes[17] + "." + bytes[16];
            availability = bytes[20];
            services = bytes.length == SIZE ? "-"
                : Arrays.stream(bytes, SIZE, bytes.length).mapToObj(Integer::toString).collect(joining(","));
        }

        String state() {
            if (pending != 0) {
                return "pending";
            }
            return availability < STATES.length ? STATES[availability] : Integer.toString(availability);
        }

        /** Whether the radio is in no table any more. */
        boolean removes() {
            return pending == 0 && availability == 0;
        }
    }

    private static final String USAGE = "usage: java Application.java HOST PORT [report=ESN@ADDRESS]\n"
        + "  report=0011AABB22CC33DD@127.0.0.2  tells the server, once, that this radio cannot be reached there";

    private static final long FIRST_PAUSE = 1000; // ms before the next attempt to connect
    private static final long LONGEST_PAUSE = 60000;
    private static final int CONNECTING = 10000; // ms that an attempt may take
    private static final int SILENCE = 2000; // ms without a notice that end a table: a server sends it without pauses
    private static final Map<SocketOption<Integer>, Integer> KEEPALIVE = Map.of(ExtendedSocketOptions.TCP_KEEPIDLE, 20,
        ExtendedSocketOptions.TCP_KEEPINTERVAL, 5, ExtendedSocketOptions.TCP_KEEPCOUNT, 3);

    private static final String UP_TO_255 = "(?:25[0-5]|2[0-4][0-9]|1[0-9]{2}|[1-9]?[0-9])";
    private static final Pattern REPORT_SETTING
        = Pattern.compile("report=([0-9A-Fa-f]{16})@(" + UP_TO_255 + "(?:\\." + UP_TO_255 + "){3})");

    private final String host;
    private final int port;
    private String[] toReport; // ESN and address; null: nothing, or it was reported
    private long pause = FIRST_PAUSE;
    private final TreeMap<String, Notice> table = new TreeMap<>(); // the old one is in use until a new one is complete
    private TreeSet<String> told; // the ESNs of the new table so far; null: it is complete
    private volatile int exitCode; // 1 after a failure, so that a service manager starts the application again

    private Application(String[] words) {
        if (words.length < 2 || !words[1].matches("[0-9]{1,5}")) {
            throw new IllegalArgumentException("HOST and PORT");
        }
        host = words[0];
        port = Integer.parseInt(words[1]);
        if (port < 1 || port > 65535) {
            throw new IllegalArgumentException("PORT");
        }
        for (int i = 2; i < words.length; ++i) {
            Matcher setting = REPORT_SETTING.matcher(words[i]);
            if (!setting.matches()) {
                throw new IllegalArgumentException(words[i]);
            }
            toReport = new String[] {setting.group(1).toUpperCase(Locale.ROOT), setting.group(2)};
        }
    }

    private void run() throws InterruptedException {
        // At a signal nothing is left to be done. With halt() the exit code is not that of the signal.
        Runtime.getRuntime().addShutdownHook(new Thread(() -> Runtime.getRuntime().halt(exitCode)));
        try {
            while (true) {
                try (Socket connection = new Socket()) {
                    follow(connection);
                } catch (IOException reason) {
                    say("disconnected: " + reason.getMessage());
                }
                // Drawn by lot, so that a thousand applications do not come at once when a server is back.
                Thread.sleep(ThreadLocalRandom.current().nextLong(pause / 2, pause + 1));
                pause = Math.min(2 * pause, LONGEST_PAUSE);
            }
        } finally {
            exitCode = 1; // nothing but a failure leads here
        }
    }

    /** One connection, for as long as it lasts. */
    private void follow(Socket connection) throws IOException {
        connection.connect(new InetSocketAddress(host, port), CONNECTING);
        say("connected to " + host + ":" + port);
        noticeCutConnection(connection);
        told = new TreeSet<>();
        ByteBuffer received = ByteBuffer.allocate(65536);
        long silentAt = now() + SILENCE;
        while (true) {
            // A quiet server is healthy: once the table is complete, there is no end to the wait (0).
            connection.setSoTimeout(told == null ? 0 : (int) Math.max(1, silentAt - now()));
            int count;
            try {
                count = connection.getInputStream().read(received.array(), received.position(), received.remaining());
            } catch (SocketTimeoutException silence) {
                complete(connection);
                continue;
            }
            if (count < 0) {
                throw new IOException("the server has closed the connection");
            }
            received.position(received.position() + count).flip();
            for (Notice notice; (notice = Codec.takeNotice(received)) != null; silentAt = now() + SILENCE) {
                take(notice, connection);
            }
            received.compact(); // the beginning of a message comes to the front
        }
    }

    private void take(Notice notice, Socket connection) throws IOException {
        // A table is told in the order of the ESNs and has no mark at its end. What is out of order is a change.
        if (told != null && !told.isEmpty() && notice.esn.compareTo(told.last()) <= 0) {
            complete(connection);
        }
        if (told != null) {
            told.add(notice.esn);
        }
        if (notice.removes()) {
            table.remove(notice.esn);
        } else {
            table.put(notice.esn, notice);
        }
        say(String.join(" ", notice.esn, notice.state(), notice.address, notice.services));
    }

    private void complete(Socket connection) throws IOException {
        TreeSet<String> left = new TreeSet<>(table.keySet());
        left.removeAll(told);
        for (String esn : left) {
            table.remove(esn);
            say(esn + " left");
        }
        told = null;
        pause = FIRST_PAUSE;
        say("table complete: " + table.size() + " radios");
        if (toReport != null) {
            connection.getOutputStream().write(Codec.report(toReport[0], toReport[1]));
            say("reported " + toReport[0] + " at " + toReport[1]);
            toReport = null;
        }
    }

    /**
     * A server whose network is cut off says nothing, like one where nothing happens. TCP asks in the silence; but not
     * while a report is on its way: for that it has a patience of its own, of many minutes.
     */
    private static void noticeCutConnection(Socket connection) throws IOException {
        connection.setKeepAlive(true);
        for (Map.Entry<SocketOption<Integer>, Integer> option : KEEPALIVE.entrySet()) {
            // Java for Windows has had them only of late; without them that system asks after two hours.
            if (connection.supportedOptions().contains(option.getKey())) {
                connection.setOption(option.getKey(), option.getValue());
            }
        }
    }

    private static long now() {
        return System.nanoTime() / 1000000;
    }

    private static void say(String text) {
        System.out.println(text); // each line leaves at once
    }

    public static void main(String[] words) throws InterruptedException {
        Application application = null;
        try {
            application = new Application(words);
        } catch (IllegalArgumentException wrong) {
            System.err.println(USAGE);
            System.exit(2);
        }
        application.run();
    }
}
