package com.tarn.performance.demo;

import com.tarn.performance.Boost;
import com.tarn.performance.BoostRequest;
import com.tarn.performance.BoosterCodes;
import com.tarn.performance.BoosterConfig;
import com.tarn.performance.BoosterListener;
import com.tarn.performance.CpuLoad;
import com.tarn.performance.CpuLoadTrace;
import com.tarn.performance.ServiceReport;
import com.tarn.performance.TarnBooster;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Scanner;
import java.util.concurrent.CopyOnWriteArrayList;

/**
 * An application of the library, in one sitting: boosts, events, a service that dies under an open boost, one
 * that stands still, and the CPU load of threads.
 *
 * <p>The argument is the service's name. A line with {@code @} on standard output asks whoever started the
 * demo to do something to the service, and to answer with a line. With {@code --hold} in front, it only keeps
 * one boost open and tells what becomes of it.
 */
final class Demo implements BoosterListener {
    private static final int HOLD_MILLIS = BoostRequest.MAX_TIMEOUT_MILLIS;

    private final TarnBooster booster = TarnBooster.get();
    private final Checklist list = new Checklist();
    private final List<String> heard = new CopyOnWriteArrayList<>();
    private final Scanner answers = new Scanner(System.in, StandardCharsets.UTF_8);

    public static void main(String[] args) throws InterruptedException {
        Demo demo = new Demo();
        boolean hold = args.length == 2 && args[0].equals("--hold");
        if (args.length != 1 && !hold) {
            System.err.println("usage: Demo [--hold] SERVICE-NAME");
            System.exit(2);
        }
        demo.start(args[args.length - 1]);
        if (hold) {
            demo.hold();
        }
        boolean complete = demo.runAll();
        // Not by returning: the library's callback thread keeps the virtual machine alive.
        System.exit(complete ? 0 : 1);
    }

    private void start(String serviceName) {
        // A real application would name its main thread's executor.
        booster.addListener(this, Runnable::run);
        booster.start(BoosterConfig.builder(serviceName).retryIntervalSeconds(1).build());
    }

    private void hold() throws InterruptedException {
        booster.setServiceEvents(true);
        while (true) {
            try (Boost boost = booster.boost(BoostRequest.lasting(HOLD_MILLIS).ioLevel(2).build())) {
                say("one I/O boost is open for ten minutes; end the service and start it again, or press Ctrl-C");
                while (boost.remainingMillis() > 0) {
                    Thread.sleep(Math.min(boost.remainingMillis(), 1000));
                }
            }
        }
    }

    private boolean runAll() {
        try {
            firstBoost();
            sharedBoosts();
            requestsMadeOnce();
            killedService();
            deafService();
            threadLoads();
        } catch (Throwable e) {
            e.printStackTrace();
            list.note("the demo ran to its end", false);
        }
        title("What the application has seen");
        return list.summary();
    }

    private void firstBoost() throws InterruptedException {
        title("1. A boost: one thread gets a core of its own, for as long as a block of code runs");
        list.await("a connection to the service",
                () -> booster.connectionState() == BoosterCodes.CONNECTION_CONNECTED);
        booster.setServiceEvents(true);
        try (WorkerThread worker = new WorkerThread("worker", false)) {
            String before = worker.affinity();
            say("the worker may run on CPUs " + before);
            boolean one = before.matches("\\d+");
            if (one) {
                say("this machine gives it one CPU only, so there will be no change to see");
            }
            try (Boost boost = booster.boost(BoostRequest.lasting(60_000).threads(worker.tid()).build())) {
                list.await("a boost that was sent and not refused",
                        () -> boost.state() == BoosterCodes.BOOST_SENT);
                list.await("the worker's binding to a core", () -> one || !worker.affinity().equals(before));
                say("inside the block it may run on CPUs " + worker.affinity());
            }
            list.await("the end of that binding", () -> worker.affinity().equals(before));
            say("after the block it may run on CPUs " + worker.affinity());
        }
        list.await("an event from the service", () -> heard.stream().anyMatch(w -> w.startsWith("event 7")));
    }

    private void sharedBoosts() throws InterruptedException {
        title("2. Two boosts of one kind: the protocol cancels both, the interface asks again for the other");
        try (Boost longer = booster.boost(BoostRequest.lasting(60_000).ioLevel(1).build())) {
            try (Boost shorter = booster.boost(BoostRequest.lasting(30_000).ioLevel(3).build())) {
                list.await("two boosts of one kind at once", () -> isSent(longer) && isSent(shorter));
                moment();
                say("the shorter one closes");
            }
            moment();
            list.note("one of them outliving the other", isSent(longer));
        }
        moment();
        say("on CPU frequency, alone and with the rest:");
        try (WorkerThread worker = new WorkerThread("worker", false);
                Boost cpu = booster.boost(BoostRequest.lasting(5000).cpuLevel(2).build());
                Boost all = booster.boost(
                        BoostRequest.lasting(5000).cpuLevel(2).ioLevel(2).threads(worker.tid()).build())) {
            list.await("an answer about CPU frequency", () -> isAnswered(cpu) && isAnswered(all));
            moment();
        }
        moment();
    }

    private void requestsMadeOnce() throws InterruptedException {
        title("3. Requests that are made once, and a refusal");
        booster.checkPermission();
        booster.requestScreenResolution(2, "gallery");
        booster.resetScreenResolution();
        booster.preload(List.of("/etc/os-release", "/etc/passwd"));
        // The service was not started with the flag that allows it.
        booster.terminateApp();
        list.await("a refusal, in words",
                () -> heard.stream().anyMatch(what -> what.startsWith("termination refused")));
    }

    private void killedService() throws InterruptedException {
        moment();
        title("4. The service is killed under an open boost");
        try (Boost open = booster.boost(BoostRequest.lasting(60_000).ioLevel(2).build())) {
            list.await("a boost that is open", () -> isSent(open));
            moment();
            heard.clear();
            control("@kill");
            say("nobody has told the library. The next request counts as queued, and is lost:");
            try (Boost lost = booster.boost(BoostRequest.lasting(60_000).ioLevel(3).build())) {
                list.await(
                        "the lost request noticed", () -> heard.contains("the connection is disconnected"));
                say("both boosts wait: " + words(open) + ", " + words(lost));
                control("@start");
                list.await(
                        "both boosts asked for again, by nobody's doing", () -> isSent(open) && isSent(lost));
                list.await("the registration for events renewed",
                        () -> heard.stream().anyMatch(what -> what.startsWith("event 8")));
                say("asked for again, with the time they have left: " + open.remainingMillis() / 1000
                        + " s and " + lost.remainingMillis() / 1000 + " s of 60");
                moment();
            }
        }
        moment();
    }

    private void deafService() throws InterruptedException {
        title("5. The service stands still: it accepts requests and reads none");
        control("@stop");
        // One request that is larger than a socket holds, and more than the library queues behind it.
        booster.preload(Collections.nCopies(256,
                "/etc/"
                        + "../etc/".repeat(150) + "os-release"));
        for (int i = 0; i < 8; i++) {
            booster.resetScreenResolution();
        }
        list.await("the library waiting for the service",
                () -> heard.contains("the connection is unresponsive"));
        long[] nanos = new long[100];
        for (int i = 0; i < nanos.length; i++) {
            long start = System.nanoTime();
            booster.boost(BoostRequest.lasting(1000).ioLevel(1).build()).close();
            nanos[i] = System.nanoTime() - start;
        }
        Arrays.sort(nanos);
        say(String.format(
                "the library waits for it; opening and closing a boost takes the application %.0f µs",
                nanos[50] / 1e3));
        list.note("an application that nobody holds up", nanos[50] < 5_000_000);
        control("@continue");
        list.await("a service that is well again",
                () -> booster.connectionState() == BoosterCodes.CONNECTION_CONNECTED);
        moment();
    }

    private void threadLoads() throws InterruptedException {
        title("6. The CPU load of a busy and of an idle thread, for one second");
        boolean frequencies =
                Files.isReadable(Path.of("/sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq"));
        if (!frequencies) {
            say("this machine does not tell its CPU frequencies, so these are seconds of CPU time");
        }
        try (WorkerThread busy = new WorkerThread("busy", true);
                WorkerThread idle = new WorkerThread("idle", false);
                CpuLoadTrace busyTrace = CpuLoadTrace.startOrNull(busy.tid(), 20);
                CpuLoadTrace idleTrace = CpuLoadTrace.startOrNull(idle.tid(), 20)) {
            if (busyTrace == null || idleTrace == null) {
                list.note("threads that can be traced", false);
                return;
            }
            Thread.sleep(1000);
            CpuLoad busyLoad = busyTrace.stop();
            CpuLoad idleLoad = idleTrace.stop();
            describe("busy", busyLoad, frequencies);
            describe("idle", idleLoad, frequencies);
            list.note("more load on the busy thread than on the idle one",
                    Math.abs(busyLoad.khzSeconds()) > Math.abs(idleLoad.khzSeconds()));
        }
    }

    private static void describe(String name, CpuLoad load, boolean frequencies) {
        say(String.format("the %s thread in %.2f s: ", name, load.elapsedSeconds())
                + (frequencies ? String.format("as %.3f s on a CPU of 1 GHz", load.secondsAt(1_000_000))
                               : String.format("%.2f s", Math.abs(load.secondsAt(-1)))));
    }

    @Override
    public void onConnectionChanged(int state) {
        hear("the connection is " + BoosterCodes.connectionName(state));
    }

    @Override
    public void onBoostChanged(Boost boost, int state) {
        boolean ended = state == BoosterCodes.BOOST_ENDED;
        hear(boost.request() + ": " + BoosterCodes.boostName(state) + (ended ? "" : reason(boost.status())));
    }

    @Override
    public void onServiceEvent(ServiceReport event) {
        hear("event " + event.code() + ": " + new String(event.data(), StandardCharsets.UTF_8));
    }

    @Override
    public void onRefused(ServiceReport report) {
        hear(BoosterCodes.functionName(report.functionId()) + " refused" + reason(report.status()));
    }

    private void hear(String what) {
        heard.add(what);
        say(what);
    }

    private static boolean isSent(Boost boost) {
        return boost.state() == BoosterCodes.BOOST_SENT;
    }

    private static boolean isAnswered(Boost boost) {
        return boost.state() != BoosterCodes.BOOST_PENDING;
    }

    private static String words(Boost boost) {
        return BoosterCodes.boostName(boost.state());
    }

    /** What the reference service means; another service has numbers of its own. */
    private static String reason(int status) {
        return switch (status) {
            case 0 -> "";
            case 1 -> ": some of it cannot be had here";
            case 3 -> ": an argument that it does not take";
            case 4 -> ": this machine has nothing to set for it";
            case 5 -> ": not permitted";
            case 6 -> ": not a thread of this application";
            default -> ", status " + status;
        };
    }

    private void control(String what) {
        System.out.println(what);
        answers.nextLine();
    }

    /** So that the service's lines stand beside ours. */
    private static void moment() throws InterruptedException {
        Thread.sleep(200);
    }

    private static void title(String text) {
        System.out.println("\n" + text);
    }

    private static synchronized void say(String text) {
        System.out.println("  app     | " + text);
    }
}
