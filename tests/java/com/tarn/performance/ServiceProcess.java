package com.tarn.performance;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.UUID;

/** A running tarnbooster-service. */
final class ServiceProcess implements AutoCloseable {
    /** A name that no other test process has, on whatever machine or container shares this network. */
    static final String NAME = "tarnbooster-test-" + UUID.randomUUID();
    private static final Path OUTPUT = Path.of(System.getProperty("tarn.stderr") + ".service");

    private final Process process;

    /** Starts it under {@link #NAME}; it listens when this returns. */
    ServiceProcess(String... options) throws IOException {
        List<String> command =
                command("TARN_EMULATOR", System.getenv("TARN_SERVICE"), "--lines", "plain", "--name", NAME);
        Collections.addAll(command, options);
        process =
                new ProcessBuilder(command).redirectErrorStream(true).redirectOutput(OUTPUT.toFile()).start();
        awaitLine("listening on @" + NAME, "");
    }

    /** A command with the words of a variable of the environment in front. */
    static List<String> command(String variable, String... words) {
        List<String> command =
                new ArrayList<>(List.of(System.getenv().getOrDefault(variable, "").trim().split(" +")));
        Collections.addAll(command, words);
        command.removeIf(String::isEmpty);
        return command;
    }

    /** Waits for a line that begins with one text and contains another. */
    void awaitLine(String start, String part) {
        Await.until("the service says " + start + " " + part, () -> {
            try (var lines = Files.lines(OUTPUT)) {
                return lines.anyMatch(line -> line.startsWith(start) && line.contains(part));
            } catch (IOException e) {
                throw new UncheckedIOException(e);
            }
        });
    }

    /** Sends it a signal, as in STOP. */
    void signal(String name) throws IOException {
        Process kill = new ProcessBuilder("kill", "-" + name, "" + process.pid()).inheritIO().start();
        Await.until("kill " + name, () -> !kill.isAlive());
    }

    /** Ends it, as a service that dies does: its clients learn by their sockets. */
    @Override
    public void close() {
        process.destroyForcibly();
        Await.until("the service has ended", () -> !process.isAlive());
    }
}
