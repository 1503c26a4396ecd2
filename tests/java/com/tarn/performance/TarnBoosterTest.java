package com.tarn.performance;

import static com.tarn.performance.BoostRequest.lasting;
import static com.tarn.performance.BoosterCodes.*;
import static com.tarn.performance.ServiceProcess.until;
import static org.junit.Assert.*;

import java.nio.file.*;
import java.util.*;
import java.util.concurrent.CopyOnWriteArrayList;
import org.junit.*;
import org.junit.runners.MethodSorters;

/** The interface over the real library and service: the stations of one story, in the order of their names. */
@FixMethodOrder(MethodSorters.NAME_ASCENDING)
public class TarnBoosterTest {
    private static final int ABSENT = 4, STUCK = 5; // exit codes
    private static final int NOBODY = Integer.MAX_VALUE; // no system has such a thread
    private static final TarnBooster BOOSTER = TarnBooster.get();
    private static final List<String> HEARD = new CopyOnWriteArrayList<>();

    @BeforeClass
    public static void start() {
        ServiceProcess.stop();
        BOOSTER.addListener(FakeLibrary.writer(HEARD, FakeLibrary.NOTHING), Runnable::run);
        BoosterConfig config = BoosterConfig.builder(ServiceProcess.NAME).retryIntervalSeconds(1).build();
        assertTrue(BOOSTER.start(config));
        assertFalse(BOOSTER.start(config));
    }

    private static void awaitHeard(String what) throws Exception {
        until(what + " in " + HEARD, () -> HEARD.contains(what));
    }

    /** Runs a virtual machine with the library's folder, or with none; its exit code. */
    private static int runChild(String library, String name) throws Exception {
        List<String> command =
                ServiceProcess.command(System.getenv("TARN_JAVA") != null ? "TARN_JAVA" : "TARN_DEFAULT_JAVA",
                        "-Djava.library.path=" + library, "-cp", System.getProperty("java.class.path"),
                        TarnBoosterTest.class.getName(), name);
        var output = Path.of(System.getProperty("tarn.stderr") + ".child").toFile();
        Process child = new ProcessBuilder(command).redirectErrorStream(true).redirectOutput(output).start();
        until("the other virtual machine ends, see " + output, () -> !child.isAlive());
        return child.exitValue();
    }

    /** What that runs. Ends by System.exit, once it knows how things stand. */
    public static void main(String[] arguments) throws Exception {
        Boost early = BOOSTER.boost(lasting(1).cpuLevel(1).build());
        BOOSTER.start(BoosterConfig.of(arguments[0]));
        jam();
        List<Integer> ends = List.of(CONNECTION_UNAVAILABLE, CONNECTION_UNRESPONSIVE);
        until("a state", () -> ends.contains(BOOSTER.connectionState()));
        boolean told = BOOSTER.loadFailure() instanceof UnsatisfiedLinkError
                && CpuLoadTrace.startOrNull(1, 1) == null && early.state() == BOOST_NOT_SENT;
        System.exit(BOOSTER.connectionState() == CONNECTION_UNRESPONSIVE ? STUCK : told ? ABSENT : 1);
    }

    /** Requests for more bytes than the sockets and the library's queue hold. */
    private static void jam() {
        for (int i = 0; i < 10; i++) {
            BOOSTER.preload(Collections.nCopies(100, "x".repeat(1000)));
        }
    }

    @Test
    public void b1ABoostWaitsForTheServiceAndOutlivesIt() throws Exception {
        BOOSTER.setServiceEvents(true);
        try (Boost boost = BOOSTER.boost(lasting(60_000).scene(77).cpuLevel(2).ioLevel(1).build())) {
            until("no connection", () -> BOOSTER.connectionState() == CONNECTION_DISCONNECTED);
            until("no service", () -> boost.state() == BOOST_PENDING);
            for (int i = 0; i < 2; i++) {
                HEARD.clear();
                ServiceProcess.start("--status", "1002=0", "--status", "1006=5", "--status", "1013=0",
                        "--push-on-register", "7:abc");
                ServiceProcess.awaitLine("1013 requestUnifyCpuIOThreadCore", "scene=77 cpulevel=2 iolevel=1");
                awaitHeard("event 7 with 3 bytes");
                assertEquals(BOOST_SENT, boost.state());
            }
            assertEquals(List.of("connected", "event 7 with 3 bytes"),
                    HEARD.stream().filter(what -> !what.matches("disconnected|77 .*")).toList());
            BOOSTER.setEnabled(false);
            until("off", () -> TarnBoosterJNI.cancelHighIOFreq(1, 1) == -3 && boost.state() == BOOST_PENDING);
            BOOSTER.setEnabled(true);
            until("on", () -> boost.state() == BOOST_SENT);
        }
        ServiceProcess.awaitLine("1014 cancelUnifyCpuIOThreadCore", "cancelcpu=1 cancelio=1 cancelthread=0");
    }

    @Test
    public void b2EveryRequestReachesTheServiceInItsOwnForm() throws Exception {
        Boost cpu = BOOSTER.boost(lasting(600_000).cpuLevel(3).scene(1).action(1L << 40).build());
        Boost threads = BOOSTER.boost(lasting(600_000).threads(NOBODY).callingThread(99).build());
        Boost io = BOOSTER.boost(lasting(600_000).ioLevel(2).build());
        until("the refusals", () -> io.state() == BOOST_REFUSED && io.status() == 5 && threads.status() == 6);
        List.of(cpu, threads, io).forEach(Boost::close);
        BOOSTER.requestScreenResolution(4, "main ui");
        BOOSTER.resetScreenResolution();
        BOOSTER.preload(List.of("/a", "b c"));
        BOOSTER.checkPermission();
        BOOSTER.terminateApp();
        awaitHeard("termination refused with status 5");
        until("no files", () -> HEARD.stream().anyMatch(what -> what.startsWith("preloading refused")));
        for (String line : List.of("1002 requestCpuHighFreq| scene=1 level=3 timeoutms=",
                     "1002 | action=1099511627776", "1003 cancelCpuHighFreq|",
                     "1004 requestCpuCoreForThread| tid=99 scene=0 bindtids=[" + NOBODY,
                     "1005 cancelCpuCoreForThread| bindtids=[" + NOBODY + "]", "1006 | level=2",
                     "1007 cancelHighIOFreq|", "1008 | level=4 uiName=\"main ui\"", "1009 |",
                     "1011 | files=2 [\"/a\", \"b c\"]", "1001 |")) {
            String[] parts = line.split("\\|", -1);
            ServiceProcess.awaitLine(parts[0], parts[1]);
        }
    }

    @Test
    public void b3ADeafServiceHoldsNobodyUp() throws Exception {
        ServiceProcess.signal("STOP");
        jam();
        awaitHeard("unresponsive");
        long start = System.nanoTime();
        for (int i = 0; i < 100; i++) {
            BOOSTER.boost(lasting(60_000).scene(79).cpuLevel(1).build()).close();
        }
        assertEquals("the mean in ms", 0, (System.nanoTime() - start) / 100e6, 5);
        assertEquals("another process ends while its booster is stuck", STUCK,
                runChild(System.getProperty("java.library.path"), ServiceProcess.NAME));
        assertEquals("and without the library nothing is thrown", ABSENT, runChild("/", "nobody"));
        Boost late = BOOSTER.boost(lasting(60_000).cpuLevel(1).build());
        HEARD.clear();
        ServiceProcess.signal("CONT");
        awaitHeard("connected");
        until("sent late", () -> late.state() == BOOST_SENT);
        late.close();
    }

    @Test
    public void b4ABusyThreadIsChargedItsCpuTimeAndClosingTwiceChangesNothing() throws Exception {
        Path cpu = Path.of("/sys/devices/system/cpu/cpu0");
        Assume.assumeTrue("the machine shows its CPUs", Files.isDirectory(cpu));
        int tid = TarnBooster.currentThreadId();
        assertThrows(IllegalArgumentException.class, () -> CpuLoadTrace.start(tid, -1));
        assertThrows(IllegalArgumentException.class, () -> CpuLoadTrace.start(tid, 4294968));
        assertThrows(IllegalStateException.class, () -> CpuLoadTrace.start(NOBODY, 1));
        CpuLoadTrace.start(tid, 1); // stays open: the process may end while samplers run
        CpuLoadTrace trace = CpuLoadTrace.start(tid, 1);
        for (long end = System.nanoTime() + 300_000_000; System.nanoTime() < end;) {
            Thread.onSpinWait();
        }
        assertThrows(IllegalStateException.class, trace::khzTicks);
        CpuLoad load = trace.stop();
        assertSame(load, trace.stop());
        assertThrows(IllegalArgumentException.class, () -> trace.secondsAt(0));
        assertTrue(load.toString(), load.khzTicks() != 0 && load.elapsedSeconds() >= 0.3);
        assertEquals(load.khzTicks(), load.secondsAt(1000) * 1000 * TarnBoosterJNI.getTickRate(), 0.001);
    }
}
