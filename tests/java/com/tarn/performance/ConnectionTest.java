package com.tarn.performance;

import static com.tarn.performance.TarnBoosterJNI.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotEquals;

import java.io.IOException;
import java.util.Collections;
import org.junit.AfterClass;
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
    private final Reports reports = new Reports();

    @AfterClass
    public static void stopTheService() {
        service.close();
    }

    /** Any request. */
    private static int request() {
        return cancelHighIOFreq(1, 1);
    }

    private static void awaitConnection() {
        setRetryConnectInterval(1);
        Await.until("a request finds a connection", () -> request() != NO_ENGINE);
        assertEquals(1, isRunning());
    }

    @Test
    public void a1AnEngineForAPortCarriesNoRequestAndEachIsReported() throws Exception {
        setListener(reports);
        assertEquals(0, initTarnBooster("127.0.0.1", 9, "local"));
        assertEquals(0, isRunning());
        for (RequestsTest.Row row : RequestsTest.ROWS) {
            assertEquals(row.name(), NO_ENGINE, row.call());
        }
        int count = RequestsTest.ROWS.size();
        assertEquals(Collections.nCopies(count, Reports.NO_ENGINE), reports.await(count, report -> true));
    }

    @Test
    public void a2AttemptsAreThrottledUntilTheIntervalHasPassed() throws IOException {
        setRetryConnectInterval(1000);
        service = new ServiceProcess("--push-on-register", "7:first");
        assertEquals(0, initTarnBooster(ServiceProcess.NAME, 0, "local"));
        assertEquals(NO_ENGINE, request());
        awaitConnection();
    }

    @Test
    public void a3ADisabledClientRefusesRequestsWithoutAReportAndStaysConnected() {
        // Reports keep their order: with this push every earlier one has come too.
        Reports before = new Reports();
        setListener(before);
        registerANRCallback(1, 1);
        before.await(1, report -> report.type() == TYPE_DATA);

        setListener(reports);
        setHCEnable(false);
        assertEquals(NO_ENGINE, request());
        assertEquals(1, isRunning());
        setHCEnable(true);
        assertNotEquals(NO_ENGINE, request());
        // So a report of the refused request would stand before this push.
        registerANRCallback(1, 1);
        assertEquals("first", reports.await(1, report -> true).get(0).data());
    }

    @Test
    public void a4AServiceThatDiesIsReportedAndOneThatComesBackIsFound() throws IOException {
        setListener(reports);
        service.close();
        Await.until("the loss is noticed", () -> request() == NO_ENGINE);
        assertEquals(0, isRunning());
        reports.await(1, Reports.NO_ENGINE::equals);

        service = new ServiceProcess("--push-on-register", "8:");
        awaitConnection();
        registerANRCallback(1, 1);
        assertEquals(new Reports.Report(2, 0, 0, 1010, 8, ""),
                reports.await(1, report -> report.type() == TYPE_DATA).get(0));
        assertEquals("all reports came on one thread", 1, Reports.THREADS.size());
        assertFalse(Reports.THREADS.contains(Thread.currentThread()));
    }
}
