package com.tarn.performance;

import static com.tarn.performance.TarnBoosterJNI.*;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantReadWriteLock;

/**
 * {@code Soak SECONDS SERVICE CHECK-MEMORY}: sixteen threads over all natives, while services come,
 * stand still, lie and die. Ends with 0 when, with everything quiet again, memory, descriptors and threads are where
 * they were at the first quiet moment (after a minute, or after half of the time).
 */
public final class Soak {
    private static final int WORKERS = 16;
    private static final long TOLERATED_KB = 24 * 1024;
    private static final long STUCK_NANOS = 60_000_000_000L;
    private static final String NAME = "tarnbooster-soak-" + ProcessHandle.current().pid();

    /** Held for reading by every call of a native; whoever holds it for writing knows that all have returned. */
    private static final ReentrantReadWriteLock CALLS = new ReentrantReadWriteLock(true);
    private static final AtomicLong REQUESTS = new AtomicLong();
    private static final AtomicLong REPORTS = new AtomicLong();
    /** Bytes of the argument copies, which the natives keep for good by design, as malloc counts them. */
    private static final AtomicLong KEPT = new AtomicLong();
    private static final Random RANDOM = new Random(ProcessHandle.current().pid());

    private static String program;
    private static Process service;
    private static volatile boolean done;

    /** One of the sixteen. */
    private static final class Worker extends Thread {
        final Random random;
        final ArrayDeque<Integer> traces = new ArrayDeque<>();
        final int number;
        int tid;

        Worker(int number) {
            super("soak-" + number);
            this.number = number;
            random = new Random(number);
        }

        @Override
        public void run() {
            try {
                tid = Integer.parseInt(
                        Files.readSymbolicLink(Path.of("/proc/thread-self")).getFileName().toString());
            } catch (IOException e) {
                throw new AssertionError(e);
            }
            while (!done) {
                CALLS.readLock().lock();
                try {
                    call(random.nextInt(100));
                } finally {
                    CALLS.readLock().unlock();
                }
                REQUESTS.incrementAndGet();
                LockSupport.parkNanos(random.nextInt(8_000_000));
            }
        }

        private int[] tids() {
            int[] tids = new int[random.nextInt(6)];
            java.util.Arrays.fill(tids, tid);
            if (tids.length > 0)
                kept(4 * tids.length);
            return tids;
        }

        private String text(String text) {
            kept(text.length() + 1);
            return text;
        }

        // clang-format off
        private void call(int what) {
            long now = System.nanoTime();
            switch (what) {
                case 0 -> setDebug(number == 0);
                case 1 -> setDebug(false);
                case 2 -> setHCEnable(number != 1);
                case 3, 4 -> setHCEnable(true);
                case 5 -> setRetryConnectInterval(1);
                case 6 -> initTarnBooster(text(NAME), 0, text("here"));
                case 7 -> checkPermission(1, 2, tid, now);
                case 8 -> requestCpuCoreForThread(1, 2, tids(), 1, tid, now);
                case 9 -> cancelCpuCoreForThread(tids(), tid, now);
                case 10 -> requestUnifyCpuIOThreadCore(1, 2, 1, 1, tids(), 1, tid, now);
                case 11 -> cancelUnifyCpuIOThreadCore(true, true, true, tids(), tid, now);
                case 12 -> requestScreenResolution(1, text("a screen's name"), tid, now);
                case 13 -> registerBootPreloadResource(new String[] {text("/a"), text("/b".repeat(200))}, tid, now);
                case 14 -> registerBootPreloadResource(new String[0], tid, now);
                case 15 -> registerANRCallback(tid, now);
                case 16, 17 -> startTrace();
                case 18, 19 -> stopTrace();
                case 20 -> terminateApp(tid, now); // the services here do not
                case 21 -> resetScreenResolution(tid, now);
                case 22 -> expect(getTickRate() > 0 && testtarnbooster() == 11, "the natives answer");
                default -> {
                    requestCpuHighFreq(3, 5, 2, 10, tid, now);
                    cancelCpuHighFreq(tid, now);
                    requestHighIOFreq(3, 5, 2, 10, tid, now);
                    cancelHighIOFreq(tid, now);
                    isRunning();
                }
            }
        }
        // clang-format on

        private void startTrace() {
            if (traces.size() >= 3) return;
            int handle = startTraceCpuLoad(tid, random.nextInt(20) + 1);
            expect(handle != 0, "a trace starts");
            traces.add(handle);
        }

        private void stopTrace() {
            if (!traces.isEmpty()) stopTraceCpuLoad(traces.remove());
        }
    }

    private static void kept(int bytes) {
        KEPT.addAndGet(Math.max(32, (bytes + 8 + 15) & ~15));
    }

    private static void expect(boolean holds, String what) {
        if (holds) return;
        System.out.println("FAILED: " + what);
        Thread.getAllStackTraces().forEach((thread, stack) -> {
            if (thread.getName().startsWith("soak-")) System.out.println(thread + " " + List.of(stack));
        });
        if (service != null) service.destroyForcibly();
        Runtime.getRuntime().halt(1);
    }

    // ---- the services ----

    private static final String[] MOODS = {"garbage=40", "bad-magic", "cut-header", "wrong-funcid", "twice", "two-bodies",
            "huge-length", "huge-length=5000", "close", "half-close", "refuse", "no-answer", "stop-reading"};

    private static void start(boolean hostile) throws IOException {
        final String pushed = "x".repeat(hostile ? 128 + RANDOM.nextInt(16000) : 6);
                    List<String> command = new ArrayList<>(
                            List.of(program, "--name", NAME, "--push-every", "0.01:7:" + pushed));
                    final boolean refusing = hostile && RANDOM.nextInt(4) == 0;
                    for (int funcid = 1001; refusing && funcid <= 1014; funcid++)
                        command.addAll(List.of("--status", funcid + "=5"));
                    // A mood for a quarter of a second, then another.
                    for (int ms = 0; hostile && ms < 6000; ms += 250) {
                        final String mood = MOODS[RANDOM.nextInt(MOODS.length)];
                        final int seed = RANDOM.nextInt(1 << 30);
                        command.addAll(
                                List.of("--fault", mood + ",from=" + ms + ",for=250,chance=50,seed=" + seed));
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
                boolean hostile = RANDOM.nextInt(3) == 0;
                start(hostile);
                Thread.sleep(500 + RANDOM.nextInt(2500));
                if (RANDOM.nextBoolean()) {
                    signal("STOP"); // with all buffers filling
                    Thread.sleep(500 + RANDOM.nextInt(1500));
                    if (RANDOM.nextBoolean())
                        signal("CONT");
                    Thread.sleep(RANDOM.nextInt(1000));
                }
                kill();
                Thread.sleep(RANDOM.nextInt(300));
            }

            // ---- what is counted ----

            private static final class Counts {
                final long memoryKb;
                final long descriptors;
                final long threads;
                final List<String> own; // the names of the library's threads

                Counts(long memoryKb, long descriptors, long threads, List<String> own) {
                    this.memoryKb = memoryKb;
                    this.descriptors = descriptors;
                    this.threads = threads;
                    this.own = own;
                }

                static Counts now() throws IOException {
                    long memory = 0;
                    for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
                        if (line.startsWith("RssAnon:"))
                            memory = Long.parseLong(line.replaceAll("\\D", ""));
                    }
                    List<String> own = new ArrayList<>();
                    long threads = 0;
                    try (var tasks = Files.list(Path.of("/proc/self/task"))) {
                        for (Path task : tasks.toList()) {
                            threads++;
                            try {
                                String name = Files.readString(task.resolve("comm")).trim();
                                if (name.startsWith("tarn-"))
                                    own.add(name);
                            } catch (IOException e) {
                                threads--; // it has ended meanwhile
                            }
                        }
                    }
                    own.sort(null);
                    try (var descriptors = Files.list(Path.of("/proc/self/fd"))) {
                        return new Counts(memory - KEPT.get() / 1024, descriptors.count(), threads, own);
                    }
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
                    while (before != (before = REPORTS.get()))
                        Thread.sleep(1000); // nobody is registered any more
                    System.gc();
                    return Counts.now();
                } finally {
                    CALLS.writeLock().unlock();
                    kill();
                }
            }

            private static void show(long seconds, Counts counts) {
                System.out.printf(
                        "%5d s: %d requests, %d reports; %d MB apart from %d kB kept, %d descriptors, %d threads, %d of the library%n",
                        seconds, REQUESTS.get(), REPORTS.get(), counts.memoryKb / 1024, KEPT.get() / 1024,
                        counts.descriptors, counts.threads, counts.own.size());
            }

            public static void main(String[] arguments) {
                try {
                    soak(arguments);
                    System.out.println("passed");
                    Runtime.getRuntime().halt(0);
                } catch (Throwable thrown) {
                    thrown.printStackTrace(System.out);
                    expect(false, "this program does what it should");
                }
            }

            private static void soak(String[] arguments) throws Exception {
                final long seconds = Long.parseLong(arguments[0]);
                program = arguments[1];
                boolean checkMemory = Boolean.parseBoolean(arguments[2]);
                setListener((type, timestamp, status, funcid, code, data) -> {
                    if (REPORTS.incrementAndGet() % 4096 == 0)
                        LockSupport.parkNanos(50_000_000); // a listener that is slow at times
                });
                setRetryConnectInterval(1);
                initTarnBooster(NAME, 0, "here");
                List<Worker> workers = new ArrayList<>();
                for (int i = 0; i < WORKERS; i++) workers.add(new Worker(i));
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
                        System.out.println("the first quiet moment:");
                        show(now, first);
                    }
                    if (now >= nextShown) {
                        show(now, Counts.now());
                        nextShown = now + (seconds > 600 ? 60 : 10);
                    }
                }
                for (Worker worker : workers) expect(worker.isAlive(), worker + " is alive");
                Counts last = quiet(workers);
                System.out.println("the last quiet moment:");
                show((System.nanoTime() - begin) / 1_000_000_000, last);
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
                expect(!checkMemory || last.memoryKb <= first.memoryKb + TOLERATED_KB,
                        "memory is where it was");
                expect(REPORTS.get() > 0, "reports came");
                System.out.println("passed");
                Runtime.getRuntime().halt(0);
            }
        }
