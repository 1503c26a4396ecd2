package com.tarn.performance;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.function.Predicate;

/** A running tarnbooster-service, and the lines it has written. */
final class ServiceProcess implements AutoCloseable {
    /** A name that no other test process has. */
    static final String NAME = "tarnbooster-test-" + ProcessHandle.current().pid();

    private final Process process;
    private final List<String> lines = new CopyOnWriteArrayList<>();

    /** Starts it under {@link #NAME}; it listens when this returns. */
    static ServiceProcess start(String... options) throws IOException {
        ServiceProcess service = new ServiceProcess(options);
        service.await("it listens", line -> line.equals("listening on @" + NAME));
        return service;
    }

    private ServiceProcess(String... options) throws IOException {
        List<String> command = new ArrayList<>();
        String emulator = System.getenv().getOrDefault("TARN_EMULATOR", "").trim();
        if (!emulator.isEmpty()) {
            command.addAll(List.of(emulator.split(" +")));
        }
        command.addAll(List.of(System.getenv("TARN_SERVICE"), "--name", NAME));
        command.addAll(List.of(options));
        process = new ProcessBuilder(command).redirectErrorStream(true).start();
        Thread reader = new Thread(this::read, "service-output");
        reader.setDaemon(true);
        reader.start();
    }

    private void read() {
        try (BufferedReader reader = process.inputReader()) {
            for (String line; (line = reader.readLine()) != null;) {
                lines.add(line);
            }
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** Waits for a line. */
    void await(String what, Predicate<String> wanted) {
        Await.until(
                "the service says: " + what + "; it said " + lines, () -> lines.stream().anyMatch(wanted));
    }

    /** Ends it, as a service that dies does: its clients learn by their sockets. */
    @Override
    public void close() {
        process.destroy();
        Await.until("the service has ended", () -> !process.isAlive());
    }
}
