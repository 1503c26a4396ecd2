package com.tarn.performance;

import static com.tarn.performance.TarnBoosterJNI.*;
import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.function.IntSupplier;
import java.util.stream.LongStream;
import org.junit.AfterClass;
import org.junit.Before;
import org.junit.BeforeClass;
import org.junit.Test;

/** The fourteen requests over one connection: results, what the service makes of them, log lines, reports. */
public class RequestsTest {
    private static ServiceProcess service;
    private final Reports reports = new Reports();

    @BeforeClass
    public static void connect() throws IOException {
        service = ServiceProcess.start("--status", "1003=5", "--push-on-register", "7:a\\b");
        initTarnBooster(ServiceProcess.NAME, 0, "local");
        assertEquals("the first attempt after load is not throttled", 1, isRunning());
    }

    @Before
    public void listen() {
        setListener(reports);
    }

    @AfterClass
    public static void stopTheService() {
        service.close();
    }

    /**
     * A request, the arguments in the service's line (null when nothing is sent) and its log lines. Those
     * begin with the priority and J for the JNI unit or P for the protocol unit; %R stands for the result.
     */
    private record Row(String name, IntSupplier call, String served, String... log) {}

    private static final int TID = 1234;
    private static final long TIME = 7_000_000_000L;
    /** Threads that no system has. */
    private static final int[] TIDS = {Integer.MAX_VALUE - 1, Integer.MAX_VALUE};
    private static final String SERVED_TIDS = "bindtids=[2147483646,2147483647]";
    private static final int[] NONE = null;
    private static final long LARGE = (5L << 32) + 6;

    private static List<Row> rows() throws IOException {
        String local = "local pid: " + ProcessHandle.current().pid()
                + ", uid:" + Files.getAttribute(Path.of("/proc/self"), "unix:uid");
        return List.of(new Row("1001 checkPermission",
                               ()
                                       -> checkPermission(10, 20, 30, 40),
                               "", "DJ checkPermission: 10 20 30 40 ",
                               "DP checkPermission ret:%R pid:10 uid:20 " + local + " tid:30 timestamp:0"),
                new Row("1002 requestCpuHighFreq",
                        ()
                                -> requestCpuHighFreq(3, 5, 2, 1000, TID, TIME),
                        "scene=3 level=2 timeoutms=1000 action=5",
                        "DJ requestCpuHighFreq: 3 5 2 1000 1234 7000000000",
                        "DP requestCpuHighFreq ret:%R scene:3 action:5 level:2 timeoutms:1000 tid:1234 timestamp:7000"),
                new Row("1003 cancelCpuHighFreq",
                        ()
                                -> cancelCpuHighFreq(TID, TIME),
                        "", "DJ cancelCpuHighFreq: 1234 7000000000",
                        "DP cancelCpuHighFreq ret:%R tid:1234 timestamp:7000"),
                new Row("1004 requestCpuCoreForThread",
                        ()
                                -> requestCpuCoreForThread(3, 5, TIDS, 50, TID, TIME),
                        "scene=3 " + SERVED_TIDS + " timeout=50 action=5",
                        "DJ requestCpuCoreForThread: 3 5 2 50 1234 7000000000",
                        "DP requestCpuCoreForThread ret:%R :3 5 2 50  "),
                new Row("1004 requestCpuCoreForThread",
                        ()
                                -> requestCpuCoreForThread(3, 5, NONE, 50, TID, TIME),
                        "scene=3 bindtids=[] timeout=50 action=5",
                        "DJ requestCpuCoreForThread: 3 5 0 50 1234 7000000000",
                        "DP requestCpuCoreForThread ret:%R :3 5 0 50  "),
                new Row("1005 cancelCpuCoreForThread",
                        ()
                                -> cancelCpuCoreForThread(TIDS, TID, TIME),
                        SERVED_TIDS, "DJ cancelCpuCoreForThread: 2 1234 7000000000",
                        "DP cancelCpuCoreForThread :2 end ret:%R"),
                new Row("1005 cancelCpuCoreForThread",
                        ()
                                -> cancelCpuCoreForThread(NONE, TID, TIME),
                        null, "DJ cancelCpuCoreForThread: 0 1234 7000000000",
                        "EP cancelCpuCoreForThread bindlen :0"),
                new Row("1005 cancelCpuCoreForThread",
                        ()
                                -> cancelCpuCoreForThread(new int[0], TID, TIME),
                        null, "DJ cancelCpuCoreForThread: 0 1234 7000000000",
                        "EP cancelCpuCoreForThread bindlen :0"),
                new Row("1006 requestHighIOFreq",
                        ()
                                -> requestHighIOFreq(3, LARGE, 2, 1000, TID, TIME),
                        "scene=3 level=2 timeoutms=1000 action=" + LARGE,
                        "DJ requestHighIOFreq: 3 6 2 1000 1234 7000000000",
                        "DP requestCpuCoreForThread :3 6 2 1000 end ret:%R"),
                new Row("1007 cancelHighIOFreq",
                        ()
                                -> cancelHighIOFreq(TID, TIME),
                        "", "DJ cancelHighIOFreq: 1234 7000000000", "DP cancelHighIOFreq ret:%R "),
                new Row("1008 requestScreenResolution",
                        ()
                                -> requestScreenResolution(4, "main ui", TID, TIME),
                        "level=4 uiName=\"main ui\"", "DJ requestScreenResolution: 4 main ui 1234 7000000000",
                        "DP requestScreenResolution level: 4 uiName:main ui end ret:%R"),
                new Row("1009 resetScreenResolution",
                        ()
                                -> resetScreenResolution(TID, TIME),
                        "", "DJ resetScreenResolution: 1234  7000000000",
                        "DP resetScreenResolution end ret:%R "),
                new Row("1010 registerANRCallback",
                        ()
                                -> registerANRCallback(TID, TIME),
                        "", "DJ registerANRCallback: 1234 7000000000", "DP registerANRCallback end ret:%R "),
                new Row("1011 registerBootPreloadResource",
                        ()
                                -> registerBootPreloadResource(new String[] {"/a", "b c"}, TID, TIME),
                        "files=2 [\"/a\", \"b c\"]", "DJ registerBootPreloadResource: 1234 7000000000",
                        "DJ registerBootPreloadResource: files count is 2",
                        "DJ registerBootPreloadResource: index[0] file[/a]",
                        "DJ registerBootPreloadResource: index[1] file[b c]",
                        "DP registerBootPreloadResource files size:2 end ret:%R"),
                new Row("1011 registerBootPreloadResource",
                        ()
                                -> registerBootPreloadResource(new String[0], TID, TIME),
                        "files=0 []", "DJ registerBootPreloadResource: 1234 7000000000",
                        "EJ registerBootPreloadResource: files count is zero!",
                        "DJ registerBootPreloadResource: files count is 0",
                        "DP registerBootPreloadResource files size:0 end ret:%R"),
                new Row("1012 terminateApp",
                        ()
                                -> terminateApp(TID, TIME),
                        "", "DJ terminateApp tid:1234 7000000000", "DP terminateApp ret:%R "),
                new Row("1013 requestUnifyCpuIOThreadCore",
                        ()
                                -> requestUnifyCpuIOThreadCore(3, 5, 1, 2, TIDS, 60, TID, TIME),
                        "scene=3 cpulevel=1 iolevel=2 " + SERVED_TIDS + " timeout=60 action=5",
                        "DJ requestUnifyCpuIOThreadCore scene:3 action:5 cpulevel:1 iolevel:2 bindtids len:2 "
                                + "timeout:60 tid:1234 timestamp:7000000000",
                        "DP requestUnifyCpuIOThreadCore :3 5 1 2 2 60 end ret:%R"),
                new Row("1014 cancelUnifyCpuIOThreadCore",
                        ()
                                -> cancelUnifyCpuIOThreadCore(true, false, true, NONE, TID, TIME),
                        "cancelcpu=1 cancelio=0 cancelthread=1 bindtids=[]",
                        "DJ cancelUnifyCpuIOThreadCore cancelcpu:1 cancelio:0 cancelthread:1 bindtids len::0 "
                                + "tid:1234 timestamp:7000000000",
                        "DP cancelUnifyCpuIOThreadCore :1 0 1 0 end ret:%R"));
    }

    private static final String UNIT =
            "com_tarn_performance_TarnBoosterJNI.cpp,com_tarn_performance_tarnboosterjni_";

    /** A log line of a row in full; # stands for the source line. */
    private static String whole(String line, String function, int result) {
        String native_ = function.equals("registerANRCallback") ? "registerANRCallback__IJ" : function;
        String place = line.charAt(1) == 'J' ? UNIT + native_ : "protocol.cpp," + function;
        return line.charAt(0) + " [" + place + ":#]\""
                + line.substring(3).replace("%R", Integer.toString(result)) + "\"";
    }

    private static long microsNow() {
        return ChronoUnit.MICROS.between(Instant.EPOCH, Instant.now());
    }

    @Test
    public void everyRequestIsLoggedSentAndAnsweredWithItsSendTime() throws IOException {
        setDebug(true);
        for (Row row : rows()) {
            String function = row.name.split(" ")[1];
            int mark = LogFile.mark();
            long before = microsNow();
            int result = row.call.getAsInt();
            long after = microsNow();
            String[] expected =
                    Arrays.stream(row.log).map(line -> whole(line, function, result)).toArray(String[] ::new);
            assertArrayEquals(expected,
                    LogFile.since(mark, "\\w+.cpp,\\w*" + function + "\\w*")
                            .stream()
                            .map(LogFile::anySite)
                            .toArray());
            if (row.served == null) {
                assertEquals(row.name, NO_THREADS, result);
                continue;
            }
            // The low 32 bits of the microseconds of this very moment, whatever their sign.
            assertTrue(row.name + " " + result, result - (int) before >= 0 && (int) after - result >= 0);
            service.await(row.name + " " + row.served,
                    line
                    -> line.startsWith(row.name + " ") && line.contains(row.served) && line.contains(" -> "));
        }
        setDebug(false);
    }

    @Test
    public void theDebugSwitchGovernsDebugLinesAlone() {
        int mark = LogFile.mark();
        setDebug(false);
        assertEquals(11, testtarnbooster());
        assertEquals(List.of(), LogFile.since(mark));
        setDebug(true);
        assertEquals(11, testtarnbooster());
        setDebug(false);
        List<String> lines = LogFile.since(mark).stream().map(LogFile::anySite).toList();
        assertEquals(List.of("D [" + UNIT + "setDebug:#]\"setDebug: 1\"",
                             "D [" + UNIT + "testtarnbooster:#]\"testtarnbooster\""),
                lines.stream().filter(line -> line.contains(UNIT)).toList());
    }

    @Test
    public void refusalsComeBackInOrderWithTheTimeStampsOfTheirRequests() {
        int count = 300;
        for (int i = 0; i < count; i++) {
            cancelCpuHighFreq(TID, 1_000_000L + i);
        }
        List<Reports.Report> refused = reports.await(
                count, report -> report.timestamp() >= 1_000_000L && report.timestamp() != TIME);
        assertEquals(LongStream.range(0, count)
                             .mapToObj(i -> new Reports.Report(1, 1_000_000L + i, 5, 1003, 0, ""))
                             .toList(),
                refused);
        assertEquals(1, Reports.threads().size());
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
    public void whatAListenerThrowsIsPrintedAndTheNextReportStillComes() {
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
        assertTrue(LogFile.text().contains("the listener threw"));
        assertTrue(LogFile.text().contains("AssertionError: thrown on purpose"));
        assertEquals(1, Reports.threads().size());
    }
}
