package com.tarn.performance;

import static com.tarn.performance.ServiceProcess.until;
import static com.tarn.performance.TarnBoosterJNI.*;
import static org.junit.Assert.*;

import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.*;
import java.util.concurrent.*;
import java.util.function.*;
import java.util.regex.Pattern;
import java.util.stream.*;
import org.junit.*;
import org.junit.function.ThrowingRunnable;
import org.junit.runners.MethodSorters;

/**
 * The natives over the real service: connections, results, log lines, reports. A process has one client for its life,
 * so these are the stations of one story, in the order of their names, and the first in their virtual machine.
 */
@FixMethodOrder(MethodSorters.NAME_ASCENDING)
public class NativesTest {
    /** One call of onData. */
    record Report(int type, long timestamp, int status, int funcid, int code, String data) {}

    /** A request: NUMBER NAME, the arguments in the service's line, what the native logs after its name. */
    record Row(String name, String served, String log, IntSupplier call) {}

    /** A native's line as the host's liblog prints it: TAG PRIORITY DATE TIME PID TID [PLACE]"MESSAGE". */
    private static final Pattern NATIVE = Pattern.compile("TARNBOOSTER (\\w) \\S+ \\S+ +\\d+ +\\d+ "
            + "\\[com_tarn_performance_TarnBoosterJNI.cpp,com_tarn_performance_tarnboosterjni_\\w+:\\d+]\"(.*)\"");
    private static final Report LOST = new Report(1, 0, -20001, 0, 0, "");
    private static final Report PUSH = new Report(2, 0, 0, 1010, 7, "a\\b");
    private static final Set<Thread> THREADS = ConcurrentHashMap.newKeySet();
    private static final int TID = 1234;
    private static final long TIME = 7_000_000_000L;
    private static final int[] TIDS = {Integer.MAX_VALUE - 1, Integer.MAX_VALUE}; // no system has such
    private static final String SERVED = " bindtids=[2147483646,2147483647]";
    private static final String END = " 1234 7000000000";
    private static final String UNIFIED_END = " tid:1234 timestamp:7000000000";
    private static final String FILES = "\nD registerBootPreloadResource: ";
    private static final List<Row> ROWS = List.of(
            new Row("1001 checkPermission", "", ": 10 20 1234 40 ", () -> checkPermission(10, 20, TID, 40)),
            new Row("1002 requestCpuHighFreq", " scene=3 level=2 timeoutms=1000 action=5",
                    ": 3 5 2 1000" + END, () -> requestCpuHighFreq(3, 5, 2, 1000, TID, TIME)),
            new Row("1003 cancelCpuHighFreq", "", ":" + END, () -> cancelCpuHighFreq(TID, TIME)),
            new Row("1004 requestCpuCoreForThread", " scene=3" + SERVED + " timeout=50 action=5",
                    ": 3 5 2 50" + END, () -> requestCpuCoreForThread(3, 5, TIDS, 50, TID, TIME)),
            new Row("1005 cancelCpuCoreForThread", SERVED, ": 2" + END,
                    () -> cancelCpuCoreForThread(TIDS, TID, TIME)),
            new Row("1006 requestHighIOFreq", " scene=3 level=2 timeoutms=1000 action=21474836486",
                    ": 3 6 2 1000" + END, () -> requestHighIOFreq(3, 21_474_836_486L, 2, 1000, TID, TIME)),
            new Row("1007 cancelHighIOFreq", "", ":" + END, () -> cancelHighIOFreq(TID, TIME)),
            new Row("1008 requestScreenResolution", " level=4 uiName=\"main ui\"", ": 4 main ui" + END,
                    () -> requestScreenResolution(4, "main ui", TID, TIME)),
            new Row("1009 resetScreenResolution", "", ": 1234  7000000000",
                    () -> resetScreenResolution(TID, TIME)),
            new Row("1010 registerANRCallback", "", ":" + END, () -> registerANRCallback(TID, TIME)),
            new Row("1011 registerBootPreloadResource", " files=2 [\"/a\", \"b c\"]",
                    ":" + END + FILES + "files count is 2" + FILES + "index[0] file[/a]" + FILES
                            + "index[1] file[b c]",
                    () -> registerBootPreloadResource(new String[] {"/a", "b c"}, TID, TIME)),
            new Row("1011 registerBootPreloadResource", " files=0 []",
                    ":" + END + FILES.replace("D", "E") + "files count is zero!" + FILES + "files count is 0",
                    () -> registerBootPreloadResource(new String[0], TID, TIME)),
            new Row("1012 terminateApp", "", " tid:1234 7000000000", () -> terminateApp(TID, TIME)),
            new Row("1013 requestUnifyCpuIOThreadCore",
                    " scene=3 cpulevel=1 iolevel=2" + SERVED + " timeout=60 action=5",
                    " scene:3 action:5 cpulevel:1 iolevel:2 bindtids len:2 timeout:60" + UNIFIED_END,
                    () -> requestUnifyCpuIOThreadCore(3, 5, 1, 2, TIDS, 60, TID, TIME)),
            new Row("1014 cancelUnifyCpuIOThreadCore", " cancelcpu=0 cancelio=1 cancelthread=0" + SERVED,
                    " cancelcpu:0 cancelio:1 cancelthread:0 bindtids len::2" + UNIFIED_END,
                    () -> cancelUnifyCpuIOThreadCore(false, true, false, TIDS, TID, TIME)));

    private final List<Report> reports = new CopyOnWriteArrayList<>();

    @Before
    public void listen() {
        setListener(this::note);
    }

    private void note(int type, long timestamp, int status, int funcid, int code, byte[] data) {
        THREADS.add(Thread.currentThread());
        String text = new String(data, StandardCharsets.ISO_8859_1);
        reports.add(new Report(type, timestamp, status, funcid, code, text));
    }

    /** The reports of one kind in the order in which they came, once there are `count` of them. */
    private List<Report> await(int count, Predicate<Report> kind) throws Exception {
        until(reports, () -> reports.stream().filter(kind).count() >= count);
        return reports.stream().filter(kind).toList();
    }

    /** What this process has written to its standard error, the library's log lines among it. */
    private static String log() throws Exception {
        return Files.readString(Path.of(System.getProperty("tarn.stderr")));
    }

    /** The natives' lines after a length of log(), as in {@code D setDebug: 1}. */
    private static String nativesSince(int mark) throws Exception {
        return NATIVE.matcher(log().substring(mark))
                .results()
                .map(line -> line.group(1) + " " + line.group(2))
                .collect(Collectors.joining("\n"));
    }

    private static int request() {
        return cancelHighIOFreq(1, 1);
    }

    @Test
    public void a1AnAttemptIsMadeOncePerIntervalByARequestOrBySwitchingOn() throws Exception {
        int mark = log().length();
        setDebug(true);
        assertEquals(0, initTarnBooster("127.0.0.1", 9, "local")); // for a port: carries nothing
        assertEquals("D setDebug: 1\nD initTarnBooster\nD initTarnBooster end", nativesSince(mark));
        setDebug(false);
        ROWS.forEach(row -> assertEquals(row.name, NO_ENGINE, row.call.getAsInt()));
        assertEquals(Collections.nCopies(ROWS.size(), LOST), await(ROWS.size(), report -> true));

        String[] options = {"--status", "1003=5", "--push-on-register", "7:a\\b"};
        ServiceProcess.start(options);
        assertEquals(0, initTarnBooster(ServiceProcess.NAME, 0, "local"));
        assertEquals(NO_ENGINE, request());
        setRetryConnectInterval(1);
        setHCEnable(false);
        Thread.sleep(1100);
        assertEquals(NO_ENGINE, request());
        assertEquals(0, isRunning());
        setHCEnable(true);
        assertEquals("switching on connects", 1, isRunning());
        setHCEnable(false);
        assertEquals(NO_ENGINE, request());
        assertEquals("it stays connected", 1, isRunning());
        setHCEnable(true);

        ServiceProcess.start(options);
        Thread.sleep(1100);
        request();
        until("the loss is noticed", () -> isRunning() == 0);
        reports.clear();
        assertNotEquals("the request that finds no engine connects", NO_ENGINE, request());
        for (int i = 0; i < 3; i++) {
            registerANRCallback(1, 1);
        }
        assertEquals("and is reported all the same; each registration brings a push",
                List.of(LOST, PUSH, PUSH, PUSH), await(4, report -> true));
    }

    @Test
    public void a2EveryRequestIsLoggedSentAndAnsweredWithItsSendTime() throws Exception {
        setDebug(true);
        for (Row row : ROWS) {
            int mark = log().length();
            long before = System.currentTimeMillis() * 1000;
            int result = row.call.getAsInt();
            long after = System.currentTimeMillis() * 1000 + 1000;
            // The low 32 bits of the microseconds of this very moment, whatever their sign.
            assertTrue(row + " " + result, result - (int) before >= 0 && (int) after - result >= 0);
            assertEquals("D " + row.name.substring(5) + row.log, nativesSince(mark));
            ServiceProcess.awaitLine(row.name + " ", " tid=" + TID + row.served + " -> ");
        }
        assertEquals(NO_THREADS, cancelCpuCoreForThread(null, TID, TIME));
    }

    private static void refusesNull(String name, ThrowingRunnable call) {
        assertEquals(name + " must not be null", assertThrows(NullPointerException.class, call).getMessage());
    }

    @Test
    public void a3WhatTheLibraryDoesNotLookAtIsRefusedBeforeIt() {
        refusesNull("remote", () -> initTarnBooster(null, 0, "l"));
        refusesNull("local", () -> initTarnBooster("r", 0, null));
        refusesNull("uiName", () -> requestScreenResolution(1, null, TID, TIME));
        refusesNull("files", () -> registerBootPreloadResource(null, TID, TIME));
        refusesNull("files[1]", () -> registerBootPreloadResource(new String[] {"/a", null}, TID, TIME));
    }

    @Test
    public void a4RefusalsComeInOrderOnOneThreadAlsoAfterAListenerHasThrown() throws Exception {
        setListener((type, timestamp, status, funcid, code, data) -> {
            note(type, timestamp, status, funcid, code, data);
            if (timestamp == 1_000_000) {
                throw new AssertionError("thrown on purpose");
            }
        });
        long[] stamps = LongStream.range(1_000_000, 1_000_300).toArray();
        Arrays.stream(stamps).forEach(stamp -> cancelCpuHighFreq(TID, stamp));
        assertEquals(Arrays.stream(stamps).mapToObj(stamp -> new Report(1, stamp, 5, 1003, 0, "")).toList(),
                await(stamps.length, report -> report.timestamp / 1000 == 1000));
        assertTrue(log().contains("AssertionError: thrown on purpose"));
        assertEquals("all reports came on one thread", 1, THREADS.size());
        assertFalse(THREADS.contains(Thread.currentThread()));
    }

    @Test
    public void a5TheOtherNativesAreLoggedUnlessDebuggingIsOff() throws Exception {
        int mark = log().length();
        setHCEnable(true);
        setRetryConnectInterval(77);
        // A second initialisation changes nothing, and does not come to its end.
        assertEquals(0, initTarnBooster("elsewhere", 5, "other"));
        assertEquals(1, isRunning());
        assertEquals(11, testtarnbooster());
        setDebug(false);
        assertEquals(11, testtarnbooster());
        assertEquals("D setEnable: 1\nD setRetryConnectInterval: 77\nD initTarnBooster\nD testtarnbooster",
                nativesSince(mark));
        assertTrue(log().substring(mark).contains("\"setRetryConnectInterval 77s\""));
    }
}
