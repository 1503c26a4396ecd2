package com.tarn.performance;

import static com.tarn.performance.TarnBoosterJNI.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.util.concurrent.atomic.AtomicInteger;
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
    private static final Reports reports = new Reports();
    private static ServiceProcess service;

    @BeforeClass
    public static void listenAndLog() {
        setListener(reports);
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

    @Test
    public void a2AttemptsAreThrottledUntilTheIntervalHasPassed() throws IOException {
        service = ServiceProcess.start("--push-on-register", "7:first");
        int mark = LogFile.mark();
        // The attempt before was just now, and 30 seconds is the rule at load.
        assertEquals(0, initTarnBooster(ServiceProcess.NAME, 0, "local name"));
        assertEquals(0, isRunning());
        assertTrue(LogFile.has(
                mark, "D \\[client.cpp,tryStartEngine:312\\]\"tryStartEngine TimeDiff:\\d+ -?\\d+ -1\""));
        assertEquals(NO_ENGINE, request(1));
        assertTrue(LogFile.has(
                mark, "D \\[client.cpp,engine:277\\]\"ClientEngine not  running, try Reconnect\""));

        mark = LogFile.mark();
        setRetryConnectInterval(0);
        setRetryConnectInterval(-5);
        assertFalse(LogFile.has(mark, ".*\\[client.cpp,.*"));
        assertEquals(NO_ENGINE, request(1));
        setRetryConnectInterval(1);
        assertTrue(LogFile.has(
                mark, "D \\[client.cpp,setRetryConnectInterval:372\\]\"setRetryConnectInterval 1s\""));
        awaitConnection();
        assertEquals(1, isRunning());
    }

    @Test
    public void a3ASecondInitialisationChangesNothing() {
        int mark = LogFile.mark();
        assertEquals(0, initTarnBooster("elsewhere", 5, "other"));
        assertTrue(LogFile.has(mark,
                "D \\[client.cpp,init:\\d+\\]\"ClientInit client already inited remote:" + ServiceProcess.NAME
                        + " port:0 local:local name cb:-?\\d+ \""));
        assertNotEquals(NO_ENGINE, request(1));
    }

    @Test
    public void a4ADisabledClientRefusesRequestsAndDropsReportsButStaysConnected() {
        int mark = LogFile.mark();
        setHCEnable(false);
        assertEquals(NO_ENGINE, request(1));
        assertEquals(1, isRunning());
        setHCEnable(true);
        setHCEnable(true);
        assertNotEquals(NO_ENGINE, request(1));
        String setEnable = "D [client.cpp,setEnable:366]\"setEnable ";
        assertEquals(java.util.List.of(setEnable + "0 to 0 restart:0\"", setEnable + "1 to 1 restart:1\"",
                             setEnable + "1 to 1 restart:0\""),
                LogFile.since(mark).stream().filter(line -> line.contains(",setEnable:")).toList());
    }

    @Test
    public void a5AServiceThatDiesIsReportedAndOneThatComesBackIsFound() throws IOException {
        registerANRCallback(1, 1);
        assertEquals("first", reports.await(1, report -> report.type() == TYPE_DATA).get(0).data());
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
