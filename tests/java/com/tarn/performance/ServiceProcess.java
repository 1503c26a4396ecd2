package com.tarn.performance;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/** A running tarnbooster-service. */
final class ServiceProcess implements AutoCloseable {
    /** A name that no other test process has. */
    static final String NAME = "tarnbooster-test-" + ProcessHandle.current().pid();
    private static final Path OUTPUT = Path.of(System.getProperty("tarn.stderr") + ".service");

    private final Process process;

    /** Starts it under {@link #NAME}; it listens when this returns. */
    ServiceProcess(String... options) throws IOException {
        String emulator = System.getenv().getOrDefault("TARN_EMULATOR", "");
        List<String> command = new ArrayList<>(List.of(emulator.trim().split(" +")));
        Collections.addAll(command, System.getenv("TARN_SERVICE"), "--name", NAME);
        Collections.addAll(command, options);
        command.removeIf(String::isEmpty);
        process =
                new ProcessBuilder(command).redirectErrorStream(true).redirectOutput(OUTPUT.toFile()).start();
        awaitLine("listening on @" + NAME, "");
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

    /** Ends it, as a service that dies does: its clients learn by their sockets. */
    @Override
    public void close() {
        process.destroy();
        Await.until("the service has ended", () -> !process.isAlive());
    }
}
