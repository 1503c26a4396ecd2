package com.tarn.performance;

import static org.junit.Assert.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.*;
import java.util.concurrent.Callable;

/** The running tarnbooster-service, one at a time. */
final class ServiceProcess {
    /** A name that no other test process has, on whatever machine or container shares this network. */
    static final String NAME = "tarnbooster-test-" + UUID.randomUUID();
    private static final Path OUTPUT = Path.of(System.getProperty("tarn.stderr") + ".service");

    private static Process process;

    static {
        Runtime.getRuntime().addShutdownHook(new Thread(ServiceProcess::stop));
    }

    /** Starts it under {@link #NAME} after the end of the one before; it listens when this returns. */
    static void start(String... options) throws Exception {
        stop();
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

    /** Long enough for an emulated processor on a busy machine: a wait that runs out is a fault. */
    static void until(Object what, Callable<Boolean> condition) throws Exception {
        long start = System.nanoTime();
        while (!condition.call()) {
            assertTrue("waited in vain: " + what, System.nanoTime() - start < 60_000_000_000L);
            Thread.sleep(2);
        }
    }

    /** Waits for a line that begins with one text and contains another. */
    static void awaitLine(String start, String part) throws Exception {
        until("the service says " + start + " " + part, () -> {
            try (var lines = Files.lines(OUTPUT)) {
                return lines.anyMatch(line -> line.startsWith(start) && line.contains(part));
            }
        });
    }

    /** Sends it a signal, as in STOP. */
    static void signal(String name) throws Exception {
        new ProcessBuilder("kill", "-" + name, "" + process.pid()).inheritIO().start().waitFor();
    }

    /** Ends it, as a service that dies does: its clients learn by their sockets. */
    static void stop() {
        if (process != null) {
            process.destroyForcibly().onExit().join();
        }
    }
}
