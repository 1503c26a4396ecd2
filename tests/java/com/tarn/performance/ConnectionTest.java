package com.tarn.performance;

import static com.tarn.performance.TarnBoosterJNI.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.util.Arrays;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.regex.Pattern;
import org.junit.AfterClass;
import org.junit.BeforeClass;
import org.junit.FixMethodOrder;
import org.junit.Test;
import org.junit.runners.MethodSorters;

/**
 * How connections come and go. A process has one client for its life, so these are the stations of one story:
 * their order is that of their names.
 */
@FixMethodOrder(MethodSorters.NAME_ASCENDING)
public class ConnectionTest {
    private static ServiceProcess service;

    @BeforeClass
    public static void listenAndLog() {
        setListener(new Reports());
        setDebug(true);
    }

    @AfterClass
    public static void stopTheService() {
        service.close();
    }

    /** Any request. */
    private static int request(long timestamp) {
        return cancelHighIOFreq(1, timestamp);
    }

    /** Requests until a connection stands. */
    private static void awaitConnection() {
        Await.until("a request finds a connection", () -> request(1) != NO_ENGINE);
    }

    @Test
    public void a1AnEngineForAPortCarriesNoRequests() {
        assertEquals(0, initTarnBooster("127.0.0.1", 9, "local"));
        assertEquals(0, isRunning());
        assertEquals(NO_ENGINE, request(1));
    }

    /** Log lines since a mark: those of one native and one function of the client, whole. */
    private static void assertLogged(
            int mark, String nativeFunction, String clientFunction, String... lines) {
        String unit = "com_tarn_performance_TarnBoosterJNI.cpp,com_tarn_performance_tarnboosterjni_";
        String[] logged = LogFile.since(mark, unit + nativeFunction + "|client.cpp,(" + clientFunction + ")")
                                  .stream()
                                  .map(line -> line.replaceFirst("\\[" + unit + "(\\w+):\\d+]", "[$1]"))
                                  .toArray(String[] ::new);
        assertEquals(Arrays.toString(logged), lines.length, logged.length);
        for (int i = 0; i < lines.length; i++) {
            // Only % is not taken literally: it stands for a number.
            String pattern = Pattern.quote(lines[i]).replace("%", "\\E-?\\d+\\Q");
            assertTrue(logged[i] + " is not " + lines[i], logged[i].matches(pattern));
        }
    }

    @Test
    public void a2AttemptsAreThrottledUntilTheIntervalHasPassed() throws IOException {
        service = ServiceProcess.start("--push-on-register", "7:first");
        int mark = LogFile.mark();
        // The attempt before was just now, and 30 seconds is the rule at load.
        assertEquals(0, initTarnBooster(ServiceProcess.NAME, 0, "local name"));
        assertEquals(0, isRunning());
        assertLogged(mark, "initTarnBooster", "tryStartEngine", "D [initTarnBooster]\"initTarnBooster\"",
                "D [client.cpp,tryStartEngine:312]\"tryStartEngine TimeDiff:% % -1\"",
                "D [initTarnBooster]\"initTarnBooster end\"");
        mark = LogFile.mark();
        assertEquals(NO_ENGINE, request(1));
        assertLogged(mark, "cancelHighIOFreq", "engine|tryStartEngine",
                "D [cancelHighIOFreq]\"cancelHighIOFreq: 1 1\"",
                "D [client.cpp,engine:277]\"ClientEngine not  running, try Reconnect\"",
                "D [client.cpp,tryStartEngine:312]\"tryStartEngine TimeDiff:% % -1\"");

        mark = LogFile.mark();
        setRetryConnectInterval(0);
        setRetryConnectInterval(-5);
        assertEquals(NO_ENGINE, request(1));
        setRetryConnectInterval(1);
        assertLogged(mark, "setRetryConnectInterval", "setRetryConnectInterval",
                "D [setRetryConnectInterval]\"setRetryConnectInterval: 0\"",
                "D [setRetryConnectInterval]\"setRetryConnectInterval: -5\"",
                "D [setRetryConnectInterval]\"setRetryConnectInterval: 1\"",
                "D [client.cpp,setRetryConnectInterval:372]\"setRetryConnectInterval 1s\"");
        awaitConnection();
        assertEquals(1, isRunning());
    }

    @Test
    public void a3ASecondInitialisationChangesNothing() {
        int mark = LogFile.mark();
        assertEquals(0, initTarnBooster("elsewhere", 5, "other"));
        assertLogged(mark, "initTarnBooster", "init", "D [initTarnBooster]\"initTarnBooster\"",
                "D [client.cpp,init:%]\"ClientInit client already inited remote:" + ServiceProcess.NAME
                        + " port:0 local:local name cb:% \"");
        assertNotEquals(NO_ENGINE, request(1));
    }

    @Test
    public void a4ADisabledClientRefusesRequestsWithoutAReportAndStaysConnected() {
        // Reports keep their order: with this push every earlier one has come too.
        Reports before = new Reports();
        setListener(before);
        registerANRCallback(1, 1);
        before.await(1, report -> report.type() == TYPE_DATA);

        int mark = LogFile.mark();
        Reports whileOff = new Reports();
        setListener(whileOff);
        setHCEnable(false);
        assertEquals(NO_ENGINE, request(1));
        assertEquals(1, isRunning());
        setHCEnable(true);
        setHCEnable(true);
        assertNotEquals(NO_ENGINE, request(1));
        assertLogged(mark, "setHCEnable", "setEnable", "D [setHCEnable]\"setEnable: 0\"",
                "D [client.cpp,setEnable:366]\"setEnable 0 to 0 restart:0\"",
                "D [setHCEnable]\"setEnable: 1\"",
                "D [client.cpp,setEnable:366]\"setEnable 1 to 1 restart:1\"",
                "D [setHCEnable]\"setEnable: 1\"",
                "D [client.cpp,setEnable:366]\"setEnable 1 to 1 restart:0\"");
        // So a report of the refused request would stand before this push.
        registerANRCallback(1, 1);
        assertEquals("first", whileOff.await(1, report -> true).get(0).data());
    }

    @Test
    public void a5AServiceThatDiesIsReportedAndOneThatComesBackIsFound() throws IOException {
        AtomicInteger lost = new AtomicInteger();
        Reports whileDown = new Reports();
        setListener(whileDown);
        service.close();
        Await.until("the loss is noticed", () -> request(1) == NO_ENGINE && lost.incrementAndGet() == 3);
        assertEquals(0, isRunning());
        whileDown.await(lost.get(), new Reports.Report(1, 0, STATUS_NO_ENGINE, 0, 0, "")::equals);

        service = ServiceProcess.start("--push-on-register", "8:");
        awaitConnection();
        registerANRCallback(1, 1);
        assertEquals(new Reports.Report(2, 0, 0, 1010, 8, ""),
                whileDown.await(1, report -> report.type() == TYPE_DATA).get(0));
    }

    @Test
    public void a6AllReportsCameOnOneThread() {
        assertEquals(1, Reports.threads().size());
        assertNotEquals(Thread.currentThread(), Reports.threads().get(0));
    }
}
