package com.tarn.performance;

import static com.tarn.performance.TarnBoosterJNI.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.stream.LongStream;
import org.junit.AfterClass;
import org.junit.Before;
import org.junit.BeforeClass;
import org.junit.Test;

/** The natives over one connection: what the service makes of requests, results, log lines, reports. */
public class RequestsTest {
    private static ServiceProcess service;
    private final Reports reports = new Reports();

    @BeforeClass
    public static void connect() throws IOException {
        service = new ServiceProcess("--status", "1003=5", "--push-on-register", "7:a\\b");
        initTarnBooster(ServiceProcess.NAME, 0, "local"); // changes nothing after ConnectionTest
        ConnectionTest.awaitConnection();
    }

    @Before
    public void listen() {
        setDebug(true);
        setListener(reports);
    }

    @AfterClass
    public static void stopTheService() {
        service.close();
    }

    /** A call of a public method: NUMBER NAME, the arguments in the service's line, the native's log. */
    record Row(String name, String served, String log, Object... arguments) {
        int call() throws ReflectiveOperationException {
            for (Method method : TarnBoosterJNI.class.getMethods()) {
                if (name.endsWith(" " + method.getName())) {
                    return (int) method.invoke(null, arguments);
                }
            }
            throw new NoSuchMethodException(name);
        }
    }

    private static final int TID = 1234;
    private static final long TIME = 7_000_000_000L;
    private static final long LARGE = (5L << 32) + 6;
    private static final String[] FILES = {"/a", "b c"};
    private static final int[] TIDS = {Integer.MAX_VALUE - 1, Integer.MAX_VALUE}; // no system has such
    private static final String SERVED_TIDS = "bindtids=[2147483646,2147483647]";

    static final List<Row> ROWS = List.of(
            new Row("1001 checkPermission", "", "D checkPermission: 10 20 1234 40 ", 10, 20, TID, 40L),
            new Row("1002 requestCpuHighFreq", " scene=3 level=2 timeoutms=1000 action=5",
                    "D requestCpuHighFreq: 3 5 2 1000 1234 7000000000", 3, 5L, 2, 1000, TID, TIME),
            new Row("1003 cancelCpuHighFreq", "", "D cancelCpuHighFreq: 1234 7000000000", TID, TIME),
            new Row("1004 requestCpuCoreForThread", " scene=3 " + SERVED_TIDS + " timeout=50 action=5",
                    "D requestCpuCoreForThread: 3 5 2 50 1234 7000000000", 3, 5L, TIDS, 50, TID, TIME),
            new Row("1004 requestCpuCoreForThread", " scene=3 bindtids=[] timeout=50 action=5",
                    "D requestCpuCoreForThread: 3 5 0 50 1234 7000000000", 3, 5L, null, 50, TID, TIME),
            new Row("1005 cancelCpuCoreForThread", " " + SERVED_TIDS,
                    "D cancelCpuCoreForThread: 2 1234 7000000000", TIDS, TID, TIME),
            new Row("1006 requestHighIOFreq", " scene=3 level=2 timeoutms=1000 action=" + LARGE,
                    "D requestHighIOFreq: 3 6 2 1000 1234 7000000000", 3, LARGE, 2, 1000, TID, TIME),
            new Row("1007 cancelHighIOFreq", "", "D cancelHighIOFreq: 1234 7000000000", TID, TIME),
            new Row("1008 requestScreenResolution", " level=4 uiName=\"main ui\"",
                    "D requestScreenResolution: 4 main ui 1234 7000000000", 4, "main ui", TID, TIME),
            new Row("1009 resetScreenResolution", "", "D resetScreenResolution: 1234  7000000000", TID, TIME),
            new Row("1010 registerANRCallback", "", "D registerANRCallback: 1234 7000000000", TID, TIME),
            new Row("1011 registerBootPreloadResource", " files=2 [\"/a\", \"b c\"]",
                    "D registerBootPreloadResource: 1234 7000000000\n"
                            + "D registerBootPreloadResource: files count is 2\n"
                            + "D registerBootPreloadResource: index[0] file[/a]\n"
                            + "D registerBootPreloadResource: index[1] file[b c]",
                    FILES, TID, TIME),
            new Row("1011 registerBootPreloadResource", " files=0 []",
                    "D registerBootPreloadResource: 1234 7000000000\n"
                            + "E registerBootPreloadResource: files count is zero!\n"
                            + "D registerBootPreloadResource: files count is 0",
                    new String[0], TID, TIME),
            new Row("1012 terminateApp", "", "D terminateApp tid:1234 7000000000", TID, TIME),
            new Row("1013 requestUnifyCpuIOThreadCore",
                    " scene=3 cpulevel=1 iolevel=2 " + SERVED_TIDS + " timeout=60 action=5",
                    "D requestUnifyCpuIOThreadCore scene:3 action:5 cpulevel:1 iolevel:2 bindtids len:2 "
                            + "timeout:60 tid:1234 timestamp:7000000000",
                    3, 5L, 1, 2, TIDS, 60, TID, TIME),
            new Row("1014 cancelUnifyCpuIOThreadCore", " cancelcpu=1 cancelio=0 cancelthread=0 bindtids=[]",
                    "D cancelUnifyCpuIOThreadCore cancelcpu:1 cancelio:0 cancelthread:0 bindtids len::0 "
                            + "tid:1234 timestamp:7000000000",
                    true, false, false, null, TID, TIME),
            new Row("1014 cancelUnifyCpuIOThreadCore",
                    " cancelcpu=0 cancelio=1 cancelthread=0 " + SERVED_TIDS,
                    "D cancelUnifyCpuIOThreadCore cancelcpu:0 cancelio:1 cancelthread:0 bindtids len::2 "
                            + "tid:1234 timestamp:7000000000",
                    false, true, false, TIDS, TID, TIME));

    @Test
    public void everyRequestIsLoggedSentAndAnsweredWithItsSendTime() throws Exception {
        for (Row row : ROWS) {
            int mark = LogFile.text().length();
            long before = System.currentTimeMillis() * 1000;
            int result = row.call();
            long after = System.currentTimeMillis() * 1000 + 1000;
            // The low 32 bits of the microseconds of this very moment, whatever their sign.
            assertTrue(row + " " + result, result - (int) before >= 0 && (int) after - result >= 0);
            assertEquals(row.log, LogFile.nativesSince(mark));
            service.awaitLine(row.name + " ", " tid=" + TID + row.served + " -> ");
        }
        assertEquals(NO_THREADS, cancelCpuCoreForThread(null, TID, TIME));
        assertEquals(NO_THREADS, cancelCpuCoreForThread(new int[0], TID, TIME));
    }

    @Test
    public void theOtherNativesAreLoggedUnlessDebuggingIsOff() throws IOException {
        int mark = LogFile.text().length();
        setHCEnable(true);
        setRetryConnectInterval(77);
        // A second initialisation changes nothing, and does not come to its end.
        assertEquals(0, initTarnBooster("elsewhere", 5, "other"));
        assertEquals(1, isRunning());
        assertEquals(11, testtarnbooster());
        setDebug(false);
        assertEquals(11, testtarnbooster());
        assertEquals("D setEnable: 1\nD setRetryConnectInterval: 77\nD initTarnBooster\nD testtarnbooster",
                LogFile.nativesSince(mark));
        assertTrue(LogFile.text().substring(mark).contains("\"setRetryConnectInterval 77s\""));
    }

    @Test
    public void whatTheLibraryDoesNotLookAtIsRefusedBeforeIt() {
        for (Row row : List.of(new Row(" initTarnBooster", "remote", "", null, 0, "l"),
                     new Row(" initTarnBooster", "local", "", "r", 0, null),
                     new Row(" requestScreenResolution", "uiName", "", 1, null, TID, TIME),
                     new Row(" registerBootPreloadResource", "files", "", null, TID, TIME),
                     new Row(" registerBootPreloadResource", "files[1]", "", new String[] {"/a", null}, TID,
                             TIME))) {
            Throwable refusal = assertThrows(InvocationTargetException.class, row::call).getCause();
            assertEquals("java.lang.NullPointerException: " + row.served + " must not be null",
                    refusal.toString());
        }
    }

    @Test
    public void refusalsComeBackInOrderWithTheTimeStampsOfTheirRequests() {
        long[] stamps = LongStream.range(1_000_000, 1_000_300).toArray();
        Arrays.stream(stamps).forEach(stamp -> cancelCpuHighFreq(TID, stamp));
        assertEquals(Arrays.stream(stamps)
                             .mapToObj(stamp -> new Reports.Report(1, stamp, 5, 1003, 0, ""))
                             .toList(),
                reports.await(stamps.length, report -> report.timestamp() / 1000 == 1000));
    }

    @Test
    public void everyRegistrationBringsAPushAndPushesStayApart() {
        for (int i = 0; i < 3; i++) {
            registerANRCallback(TID, 1);
        }
        List<Reports.Report> pushes = reports.await(3, report -> report.type() == TYPE_DATA);
        pushes.forEach(push -> assertEquals(new Reports.Report(2, 0, 0, 1010, 7, "a\\b"), push));
    }

    @Test
    public void whatAListenerThrowsIsPrintedAndTheNextReportStillComes() throws IOException {
        AtomicBoolean thrown = new AtomicBoolean();
        setListener((type, timestamp, status, funcid, code, data) -> {
            if (timestamp == 555 && !thrown.getAndSet(true)) {
                throw new AssertionError("thrown on purpose");
            }
            reports.onData(type, timestamp, status, funcid, code, data);
        });
        cancelCpuHighFreq(TID, 555);
        cancelCpuHighFreq(TID, 555);
        reports.await(1, report -> report.timestamp() == 555);
        assertTrue(LogFile.text().contains("AssertionError: thrown on purpose"));
        assertEquals(1, Reports.THREADS.size());
    }
}
