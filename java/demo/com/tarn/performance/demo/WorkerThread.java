package com.tarn.performance.demo;

import com.tarn.performance.TarnBooster;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.CountDownLatch;

/** A thread to be boosted and measured: idle or busy, and known by its kernel id. */
final class WorkerThread implements AutoCloseable {
    private final CountDownLatch started = new CountDownLatch(1);
    private volatile boolean ended;
    private volatile int tid;

    /** The name must not hold blanks, or its CPU load cannot be traced. */
    WorkerThread(String name, boolean busy) throws InterruptedException {
        Thread thread = new Thread(() -> work(busy), name);
        thread.setDaemon(true);
        thread.start();
        started.await();
    }

    private void work(boolean busy) {
        tid = TarnBooster.currentThreadId();
        started.countDown();
        while (!ended) {
            if (busy) {
                Thread.onSpinWait();
            } else {
                pause();
            }
        }
    }

    private static void pause() {
        try {
            Thread.sleep(50);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }

    int tid() {
        return tid;
    }

    /** The CPUs that the kernel lets it run on, as in 0-7. */
    String affinity() {
        try (var lines = Files.lines(Path.of("/proc/self/task/" + tid + "/status"))) {
            return lines.filter(line -> line.startsWith("Cpus_allowed_list:"))
                    .map(line -> line.substring(line.indexOf(':') + 1).trim())
                    .findFirst()
                    .orElse("?");
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** It ends by itself soon after. */
    @Override
    public void close() {
        ended = true;
    }
}
