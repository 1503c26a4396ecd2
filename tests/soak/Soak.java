package com.tarn.performance;

import static com.tarn.performance.TarnBoosterJNI.*;

import java.io.*;
import java.nio.file.*;
import java.util.*;
import java.util.concurrent.*;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.*;
import java.util.function.LongConsumer;
import java.util.stream.IntStream;

/**
 * {@code Soak SECONDS SERVICE CHECK-MEMORY}: sixteen threads over all natives, while services come,
 * stand still, lie and die. Ends with 0 when, with everything quiet again, memory, descriptors and threads are where
 * they were at the first quiet moment (after a minute, or after half of the time).
 */
public final class Soak {
    private static final int WORKERS = 16;
    private static final long TOLERATED_KB = 24 * 1024;
    private static final long STUCK_NANOS = 60_000_000_000L;
    private static final int TID = (int) ProcessHandle.current().pid(); // of the main thread
    private static final String NAME = "tarnbooster-soak-" + TID;

    /** Held for reading by every call of a native; whoever holds it for writing knows that all have returned. */
    private static final ReentrantReadWriteLock CALLS = new ReentrantReadWriteLock(true);
    private static final AtomicLong REQUESTS = new AtomicLong();
    private static final AtomicLong REPORTS = new AtomicLong();
    /** Bytes of the argument copies, which the natives keep for good by design, as malloc counts them. */
    private static final AtomicLong KEPT = new AtomicLong();

    private static String program;
    private static Process service;
    private static volatile boolean done;

    /** One of the sixteen. */
    private static final class Worker extends Thread {
        final ArrayDeque<Integer> traces = new ArrayDeque<>();

        @Override
        public void run() {
            while (!done) {
                CALLS.readLock().lock();
                try {
                    calls.get(Math.min(random(100), calls.size() - 1)).accept(System.nanoTime());
                } finally {
                    CALLS.readLock().unlock();
                }
                REQUESTS.incrementAndGet();
                LockSupport.parkNanos(random(8_000_000));
            }
        }

        private int[] tids() {
            int[] tids = IntStream.generate(() -> TID).limit(random(6)).toArray();
            kept(4 * tids.length);
            return tids;
        }

        private String text(String text) {
            kept(text.length() + 1);
            return text;
        }

        /** What it calls, each about once in a hundred; the last one the rest of the time. */
        // clang-format off
        private final List<LongConsumer> calls = List.of(
                now -> setDebug(random(16) == 0), now -> setDebug(false),
                now -> setHCEnable(random(16) != 0), now -> setHCEnable(true), now -> setHCEnable(true),
                now -> setRetryConnectInterval(1),
                now -> initTarnBooster(text(NAME), 0, text("here")),
                now -> checkPermission(1, 2, TID, now),
                now -> requestCpuCoreForThread(1, 2, tids(), 1, TID, now),
                now -> cancelCpuCoreForThread(tids(), TID, now),
                now -> requestUnifyCpuIOThreadCore(1, 2, 1, 1, tids(), 1, TID, now),
                now -> cancelUnifyCpuIOThreadCore(true, true, true, tids(), TID, now),
                now -> requestScreenResolution(1, text("a screen's name"), TID, now),
                now -> registerBootPreloadResource(new String[] {text("/a"), text("/b".repeat(200))}, TID, now),
                now -> registerBootPreloadResource(new String[0], TID, now),
                now -> registerANRCallback(TID, now),
                now -> startTrace(), now -> startTrace(), now -> stopTrace(), now -> stopTrace(),
                now -> terminateApp(TID, now), // the services here do not
                now -> resetScreenResolution(TID, now),
                now -> expect(getTickRate() > 0 && testtarnbooster() == 11, "the natives answer"),
                now -> {
                    requestCpuHighFreq(3, 5, 2, 10, TID, now);
                    cancelCpuHighFreq(TID, now);
                    requestHighIOFreq(3, 5, 2, 10, TID, now);
                    cancelHighIOFreq(TID, now);
                    isRunning();
                });
        // clang-format on

        private void startTrace() {
            if (traces.size() >= 3)
                return;
            int handle = startTraceCpuLoad(TID, random(20) + 1);
            expect(handle != 0, "a trace starts");
            traces.add(handle);
        }

        private void stopTrace() {
            if (!traces.isEmpty())
                stopTraceCpuLoad(traces.remove());
        }
    }

    private static int random(int bound) {
        return ThreadLocalRandom.current().nextInt(bound);
    }

    private static void kept(int bytes) {
        KEPT.addAndGet(bytes == 0 ? 0 : Math.max(32, (bytes + 8 + 15) & ~15));
    }

    private static void expect(boolean holds, String what) {
        if (holds)
            return;
        System.out.println("FAILED: " + what);
        Thread.getAllStackTraces().forEach((thread, stack) -> {
            if (thread instanceof Worker)
                System.out.println(thread + " " + List.of(stack));
        });
        if (service != null)
            service.destroyForcibly();
        Runtime.getRuntime().halt(1);
    }

    // ---- the services ----

    private static final String[] MOODS = {"garbage=40", "bad-magic", "cut-header", "wrong-funcid", "twice",
            "two-bodies", "huge-length", "huge-length=5000", "close", "half-close", "refuse", "no-answer",
            "stop-reading"};

    private static void start(boolean hostile) throws IOException {
        int length = hostile ? 128 + random(16000) : 6;
        String push = "0.01:7:".concat("x".repeat(length));
        List<String> command = new ArrayList<>(List.of(program, "--name", NAME, "--push-every", push));
        boolean refusing = hostile && random(4) == 0;
        for (int funcid = 1001; refusing && funcid <= 1014; funcid++)
            command.addAll(List.of("--status", funcid + "=5"));
        // A mood for a quarter of a second, then another.
        for (int ms = 0; hostile && ms < 6000; ms += 250) {
            String mood = MOODS[random(MOODS.length)];
            String when = ",from=" + ms + ",for=250,chance=50,seed=" + random(1 << 30);
            command.addAll(List.of("--fault", mood + when));
        }
        service = new ProcessBuilder(command)
                          .redirectErrorStream(true)
                          .redirectOutput(ProcessBuilder.Redirect.DISCARD)
                          .start();
    }

    private static void signal(String name) throws IOException, InterruptedException {
        new ProcessBuilder("kill", "-" + name, Long.toString(service.pid())).start().waitFor();
    }

    private static void kill() throws InterruptedException {
        service.destroyForcibly().waitFor();
    }

    /** One stage of a service's life, of some seconds. */
    private static void stage() throws IOException, InterruptedException {
        start(random(3) == 0);
        Thread.sleep(500 + random(2500));
        if (random(2) == 0) {
            signal("STOP"); // with all buffers filling
            Thread.sleep(500 + random(1500));
            if (random(2) == 0)
                signal("CONT");
            Thread.sleep(random(1000));
        }
        kill();
        Thread.sleep(random(300));
    }

    // ---- what is counted ----

    /** The last two are of the library's own threads: their names, and the ticks of processor time they have used. */
    private record Counts(long memoryKb, long descriptors, long threads, List<String> own, long ticks) {
        static Counts now() throws IOException {
            long threads = 0;
            long ticks = 0;
            List<String> own = new ArrayList<>();
            for (String task : new File("/proc/self/task").list()) {
                try {
                    String[] stat =
                            Files.readString(Path.of("/proc/self/task", task, "stat")).split("[()] ?");
                    threads++;
                    if (!stat[1].startsWith("tarn-"))
                        continue;
                    own.add(stat[1]);
                    String[] fields = stat[2].split(" ");
                    ticks += Long.parseLong(fields[11]) + Long.parseLong(fields[12]);
                } catch (IOException e) {
                    // it has ended meanwhile
                }
            }
            own.sort(null);
            String memory = Files.readString(Path.of("/proc/self/status"))
                                    .replaceAll("(?s).*RssAnon:\\s*(\\d+).*", "$1");
            return new Counts(Long.parseLong(memory) - KEPT.get() / 1024,
                    new File("/proc/self/fd").list().length, threads, own, ticks);
        }
    }

    /** With a good service, no call in a native, no trace and no report on its way. */
    private static Counts quiet(List<Worker> workers) throws Exception {
        start(false);
        expect(CALLS.writeLock().tryLock(STUCK_NANOS, TimeUnit.NANOSECONDS), "every request returns");
        try {
            setDebug(false);
            setHCEnable(true);
            for (Worker worker : workers) {
                while (!worker.traces.isEmpty()) worker.stopTrace();
            }
            long deadline = System.nanoTime() + STUCK_NANOS;
            while (cancelHighIOFreq(1, 1) == NO_ENGINE || isRunning() == 0) {
                expect(System.nanoTime() < deadline, "the service is found again");
                Thread.sleep(100);
            }
            long before = -1;
            while (before != (before = REPORTS.get())) Thread.sleep(1000); // nobody is registered any more
            System.gc();
            final long busy = Counts.now().ticks;
            kill();
            Thread.sleep(1000);
            Counts counts = Counts.now();
            expect(counts.ticks - busy < 20,
                    "no thread of the library spins, with a service or after its end");
            return counts;
        } finally {
            CALLS.writeLock().unlock();
        }
    }

    private static void show(String when, long seconds, Counts counts) {
        System.out.printf(
                "%5d s, %s: %d requests, %d reports; %d MB apart from %d kB kept, %d descriptors, %d threads, "
                        + "%d of the library%n",
                seconds, when, REQUESTS.get(), REPORTS.get(), counts.memoryKb / 1024, KEPT.get() / 1024,
                counts.descriptors, counts.threads, counts.own.size());
    }

    public static void main(String[] arguments) {
        try {
            soak(Long.parseLong(arguments[0]), arguments[1], Boolean.parseBoolean(arguments[2]));
        } catch (Throwable thrown) {
            thrown.printStackTrace(System.out);
            expect(false, "this program does what it should");
        }
        System.out.println("passed");
        Runtime.getRuntime().halt(0);
    }

    private static void soak(long seconds, String serviceProgram, boolean checkMemory) throws Exception {
        program = serviceProgram;
        setListener((type, timestamp, status, funcid, code, data) -> {
            if (REPORTS.incrementAndGet() % 4096 == 0)
                LockSupport.parkNanos(50_000_000); // a listener that is slow at times
        });
        setRetryConnectInterval(1);
        initTarnBooster(NAME, 0, "here");
        List<Worker> workers = new ArrayList<>();
        for (int i = 0; i < WORKERS; i++) workers.add(new Worker());
        workers.forEach(Thread::start);

        final long begin = System.nanoTime();
        final long firstQuiet = Math.min(60, seconds / 2);
        Counts first = null;
        long now = 0;
        long nextShown = 10;
        while ((now = (System.nanoTime() - begin) / 1_000_000_000) < seconds) {
            stage();
            if (first == null && now >= firstQuiet) {
                first = quiet(workers);
                show("the first quiet moment", now, first);
            }
            if (now >= nextShown) {
                show("in between", now, Counts.now());
                nextShown = now + (seconds > 600 ? 60 : 10);
            }
        }
        for (Worker worker : workers) expect(worker.isAlive(), worker + " is alive");
        Counts last = quiet(workers);
        show("the last quiet moment", (System.nanoTime() - begin) / 1_000_000_000, last);
        done = true;
        for (Worker worker : workers) {
            worker.join(STUCK_NANOS / 1_000_000);
            expect(!worker.isAlive(), worker + " ends");
        }
        expect(last.own.equals(List.of("tarn-callback", "tarn-engine")),
                "one engine thread and one callback thread");
        expect(last.own.equals(first.own) && last.threads <= first.threads + 1,
                "threads are where they were");
        expect(last.descriptors <= first.descriptors, "descriptors are where they were");
        expect(!checkMemory || last.memoryKb <= first.memoryKb + TOLERATED_KB, "memory is where it was");
        expect(REPORTS.get() > 0, "reports came");
    }
}
