package com.tarn.performance;

import static com.tarn.performance.TarnBoosterJNI.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotEquals;

import java.io.IOException;
import java.util.Collections;
import java.util.List;
import java.util.concurrent.locks.LockSupport;
import org.junit.AfterClass;
import org.junit.FixMethodOrder;
import org.junit.Test;
import org.junit.runners.MethodSorters;

/**
 * How connections come and go. A process has one client for its life, so these are the stations of one story:
 * their order is that of their names. It is the first in its virtual machine.
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

    static void awaitConnection() {
        setRetryConnectInterval(1);
        Await.until("a request finds a connection, and does not break it", () -> {
            boolean found = request() != NO_ENGINE;
            LockSupport.parkNanos(20_000_000);
            return found && isRunning() == 1;
        });
    }

    @Test
    public void a1AnEngineForAPortCarriesNoRequestAndEachIsReported() throws Exception {
        setListener(reports);
        int mark = LogFile.text().length();
        setDebug(true);
        assertEquals(0, initTarnBooster("127.0.0.1", 9, "local"));
        assertEquals("D setDebug: 1\nD initTarnBooster\nD initTarnBooster end", LogFile.nativesSince(mark));
        setDebug(false);
        assertEquals(0, isRunning());
        for (RequestsTest.Row row : RequestsTest.ROWS) {
            assertEquals(row.name(), NO_ENGINE, row.call());
        }
        int count = RequestsTest.ROWS.size();
        assertEquals(Collections.nCopies(count, Reports.NO_ENGINE), reports.await(count, report -> true));
    }

    @Test
    public void a2AttemptsAreThrottledUntilTheIntervalHasPassed() throws IOException {
        setRetryConnectInterval(2147484); // in milliseconds more than 31 bits
        service = new ServiceProcess("--push-every", "0.1:7:first");
        assertEquals(0, initTarnBooster(ServiceProcess.NAME, 0, "local"));
        assertEquals(NO_ENGINE, request());
        awaitConnection();
    }

    @Test
    public void a3ADisabledClientRefusesRequestsHearsNothingAndStaysConnected() throws Exception {
        setListener(reports);
        registerANRCallback(1, 1);
        reports.await(1, report -> report.type() == TYPE_DATA);
        setHCEnable(false);
        assertEquals(NO_ENGINE, request());
        assertEquals(1, isRunning());
        Thread.sleep(200); // for what was on its way
        Reports disabled = new Reports();
        setListener(disabled);
        Thread.sleep(500);
        assertEquals("neither pushes nor the refused request", 0, disabled.count());
        setHCEnable(true);
        assertNotEquals(NO_ENGINE, request());
        assertEquals("first", disabled.await(1, report -> true).get(0).data());
    }

    @Test
    public void a4AServiceThatDiesIsReportedAndOneThatComesBackIsFound() throws Exception {
        setListener(reports);
        service.close();
        Await.until("the loss is noticed", () -> request() == NO_ENGINE);
        assertEquals(0, isRunning());
        reports.await(1, Reports.NO_ENGINE::equals);

        service = new ServiceProcess("--push-on-register", "8:");
        setHCEnable(false);
        Thread.sleep(1100);
        setHCEnable(true);
        assertEquals("switching on connects", 1, isRunning());

        service.close();
        service = new ServiceProcess("--push-on-register", "8:");
        Thread.sleep(1100);
        request();
        Await.until("the loss is noticed", () -> isRunning() == 0);
        Reports last = new Reports();
        setListener(last);
        assertNotEquals("the request that finds no engine connects", NO_ENGINE, request());
        registerANRCallback(1, 1);
        assertEquals("and is reported all the same",
                List.of(Reports.NO_ENGINE, new Reports.Report(2, 0, 0, 1010, 8, "")),
                last.await(2, report -> true));
        assertEquals("all reports came on one thread", 1, Reports.THREADS.size());
        assertFalse(Reports.THREADS.contains(Thread.currentThread()));
    }
}
