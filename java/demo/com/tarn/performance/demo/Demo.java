package com.tarn.performance.demo;

import com.tarn.performance.CpuLoadTrace;
import com.tarn.performance.TarnBoosterJNI;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Scanner;
import java.util.concurrent.CopyOnWriteArrayList;

/**
 * An application of the library, in one sitting: connects, makes every request, is called back, loses the
 * service and finds it again, measures threads.
 *
 * <p>The argument is the service's name. A line "@restart" on standard output asks whoever started the demo
 * to restart the service and to answer with a line.
 */
final class Demo {
    private record Report(int type, int status, int funcid, int code, String data) {}

    private final Checklist list = new Checklist();
    private final List<Report> reports = new CopyOnWriteArrayList<>();
    private final int tid = WorkerThread.currentTid();
    private int requests;

    public static void main(String[] args) {
        boolean complete = new Demo().runAll(args[0]);
        // Not by returning: the library's callback thread keeps the virtual machine alive.
        System.exit(complete ? 0 : 1);
    }

    private boolean runAll(String serviceName) {
        try {
            connect(serviceName);
            frequencies();
            coreBinding();
            screenAndFiles();
            callbacks();
            combinedRequest();
            traceThreads();
            restart();
        } catch (Throwable e) {
            e.printStackTrace();
            list.note("the demo ran to its end", false);
        }
        title("What the application has seen");
        return list.summary();
    }

    private void connect(String serviceName) {
        title("The application connects");
        TarnBoosterJNI.setListener(this::onReport);
        TarnBoosterJNI.setRetryConnectInterval(1);
        TarnBoosterJNI.initTarnBooster(serviceName, 0, "demo");
        list.note("a connection to the service", TarnBoosterJNI.isRunning() == 1);
        int pid = (int) ProcessHandle.current().pid();
        request("checkPermission", TarnBoosterJNI.checkPermission(pid, 0, tid, now()));
    }

    /** On the library's callback thread: writes down and leaves the rest to the main thread. */
    private void onReport(int type, long timestamp, int status, int funcid, int code, byte[] data) {
        Report report = new Report(type, status, funcid, code, new String(data, StandardCharsets.UTF_8));
        reports.add(report);
        if (type == TarnBoosterJNI.TYPE_DATA) {
            say("onData: the service pushes code " + code + " \"" + report.data + "\"");
        } else if (status != TarnBoosterJNI.STATUS_NO_ENGINE) {
            say("onData: the service answers " + funcid + " with status " + status);
        }
    }

    private void frequencies() {
        title("CPU and I/O frequency");
        request("requestCpuHighFreq", TarnBoosterJNI.requestCpuHighFreq(1, 1, 2, 2000, tid, now()));
        request("cancelCpuHighFreq", TarnBoosterJNI.cancelCpuHighFreq(tid, now()));
        request("requestHighIOFreq", TarnBoosterJNI.requestHighIOFreq(1, 1, 2, 2000, tid, now()));
        request("cancelHighIOFreq", TarnBoosterJNI.cancelHighIOFreq(tid, now()));
    }

    private void coreBinding() throws InterruptedException {
        title("A thread is bound to a core");
        try (WorkerThread worker = new WorkerThread("worker", false)) {
            int[] tids = {worker.tid()};
            String before = worker.affinity();
            say("the worker may run on CPUs " + before + " before");
            if (before.matches("\\d+")) {
                say("this machine gives it one CPU only, so there will be no change to see");
            }
            request("requestCpuCoreForThread",
                    TarnBoosterJNI.requestCpuCoreForThread(1, 1, tids, 60000, tid, now()));
            list.await("the worker's binding to a core", () -> !worker.affinity().equals(before));
            say("the worker may run on CPUs " + worker.affinity() + " during the boost");
            request("cancelCpuCoreForThread", TarnBoosterJNI.cancelCpuCoreForThread(tids, tid, now()));
            list.await("the end of that binding", () -> worker.affinity().equals(before));
            say("the worker may run on CPUs " + worker.affinity() + " after");
        }
    }

    private void screenAndFiles() {
        title("Screen resolution and preloading");
        request("requestScreenResolution", TarnBoosterJNI.requestScreenResolution(2, "gallery", tid, now()));
        request("resetScreenResolution", TarnBoosterJNI.resetScreenResolution(tid, now()));
        String[] files = {"/etc/os-release", "/etc/passwd"};
        request("registerBootPreloadResource", TarnBoosterJNI.registerBootPreloadResource(files, tid, now()));
    }

    private void callbacks() throws InterruptedException {
        title("The service calls back");
        request("registerANRCallback", TarnBoosterJNI.registerANRCallback(tid, now()));
        list.await("a data push in onData", () -> hasReport(TarnBoosterJNI.TYPE_DATA, 0, 1010));
        // The service was not started with the flag that allows it.
        request("terminateApp", TarnBoosterJNI.terminateApp(tid, now()));
        list.await("a refused status in onData",
                () -> reports.stream().anyMatch(report -> report.funcid == 1012 && report.status != 0));
    }

    private void combinedRequest() throws InterruptedException {
        title("All of it in one request");
        try (WorkerThread worker = new WorkerThread("worker", false)) {
            int[] tids = {worker.tid()};
            request("requestUnifyCpuIOThreadCore",
                    TarnBoosterJNI.requestUnifyCpuIOThreadCore(1, 1, 2, 2, tids, 60000, tid, now()));
            request("cancelUnifyCpuIOThreadCore",
                    TarnBoosterJNI.cancelUnifyCpuIOThreadCore(true, true, true, tids, tid, now()));
        }
        list.note("fourteen requests made and queued", requests == 14);
    }

    private void traceThreads() throws InterruptedException {
        title("CPU load of a busy and an idle thread");
        boolean frequencies =
                Files.isReadable(Path.of("/sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq"));
        if (!frequencies) {
            say("this machine has no cpufreq: every tick counts -1, so the sum is the ticks, negative");
        }
        try (WorkerThread busy = new WorkerThread("busy", true);
                WorkerThread idle = new WorkerThread("idle", false)) {
            CpuLoadTrace busyTrace = CpuLoadTrace.start(busy.tid(), 20);
            CpuLoadTrace idleTrace = CpuLoadTrace.start(idle.tid(), 20);
            Thread.sleep(1000);
            busyTrace.close();
            idleTrace.close();
            describe("busy", busyTrace, frequencies);
            describe("idle", idleTrace, frequencies);
            list.note("more load on the busy thread than on the idle one",
                    Math.abs(busyTrace.khzSeconds()) > Math.abs(idleTrace.khzSeconds()));
        }
    }

    private static void describe(String name, CpuLoadTrace trace, boolean frequencies) {
        say(String.format(
                    "%s thread: %d kHz·ticks in %.2f s; ", name, trace.khzTicks(), trace.elapsedSeconds())
                + (frequencies ? String.format("as %.3f s on a CPU of 1 GHz", trace.secondsAt(1_000_000))
                               : String.format("%.2f s of CPU time", Math.abs(trace.secondsAt(-1)))));
    }

    private void restart() throws InterruptedException {
        title("The service is restarted");
        reports.clear();
        System.out.println("@restart");
        new Scanner(System.in, StandardCharsets.UTF_8).nextLine();
        // The first request into the broken connection still counts as queued; the next ones find no engine.
        list.await("the report that the connection was lost", () -> {
            TarnBoosterJNI.checkPermission(1, 1, tid, now());
            return hasReport(TarnBoosterJNI.TYPE_STATUS, TarnBoosterJNI.STATUS_NO_ENGINE, 0);
        });
        say("onData: no connection (status " + TarnBoosterJNI.STATUS_NO_ENGINE + ")");
        list.await("the new service found",
                () -> { return TarnBoosterJNI.registerANRCallback(tid, now()) != TarnBoosterJNI.NO_ENGINE; });
        list.await("a data push of the new service", () -> hasReport(TarnBoosterJNI.TYPE_DATA, 0, 1010));
    }

    private boolean hasReport(int type, int status, int funcid) {
        return reports.stream().anyMatch(
                report -> report.type == type && report.status == status && report.funcid == funcid);
    }

    /** Prints a request's result; then the service gets a moment, so that its lines stand beside ours. */
    private void request(String name, int result) {
        if (result == TarnBoosterJNI.NO_ENGINE) {
            say(name + ": no connection");
        } else {
            requests++;
            say(name + ": queued (" + Integer.toUnsignedString(result) + ")");
        }
        try {
            Thread.sleep(100);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }

    private static long now() {
        return System.nanoTime();
    }

    private static void title(String text) {
        System.out.println("\n" + text);
    }

    private static synchronized void say(String text) {
        System.out.println("  app     | " + text);
    }
}
