package com.tarn.performance;

import static com.tarn.performance.BoostRequest.lasting;
import static com.tarn.performance.BoosterCodes.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;

import java.util.Arrays;
import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import org.junit.AfterClass;
import org.junit.BeforeClass;
import org.junit.FixMethodOrder;
import org.junit.Test;
import org.junit.runners.MethodSorters;

/** The interface over the real library and service: the stations of one story, in the order of their names. */
@FixMethodOrder(MethodSorters.NAME_ASCENDING)
public class TarnBoosterTest {
    private static final int NOBODY = Integer.MAX_VALUE; // no system has such a thread
    private static final TarnBooster BOOSTER = TarnBooster.get();
    private static final List<String> HEARD = new CopyOnWriteArrayList<>();
    private static ServiceProcess service;

    @BeforeClass
    public static void start() {
        BOOSTER.addListener(new BoosterListener() {
            @Override
            public void onConnectionChanged(int state) {
                HEARD.add(connectionName(state));
            }
            @Override
            public void onServiceEvent(ServiceReport event) {
                HEARD.add(event.toString());
            }
            @Override
            public void onRefused(ServiceReport report) {
                HEARD.add(report.toString());
            }
        }, Runnable::run);
        BoosterConfig config = BoosterConfig.builder(ServiceProcess.NAME)
                                       .retryIntervalSeconds(1)
                                       .libraryLoader(System::loadLibrary)
                                       .build();
        assertTrue(BOOSTER.start(config));
        assertFalse(BOOSTER.start(config));
    }

    @AfterClass
    public static void stopTheService() {
        service.close();
    }

    private static void restart() throws Exception {
        if (service != null) {
            service.close();
        }
        HEARD.clear();
        service = new ServiceProcess("--status", "1002=0", "--status", "1006=5", "--status", "1013=0",
                "--push-on-register", "7:abc");
    }

    private static void awaitHeard(String what) {
        Await.until(what + " in " + HEARD, () -> HEARD.contains(what));
    }

    @Test
    public void b1ABoostWaitsForTheServiceAndOutlivesIt() throws Exception {
        BOOSTER.setServiceEvents(true);
        try (Boost boost = BOOSTER.boost(lasting(60_000).scene(77).cpuLevel(2).ioLevel(1).build())) {
            Await.until("no connection",
                    ()
                            -> BOOSTER.connectionState() == CONNECTION_DISCONNECTED
                            && boost.state() == BOOST_PENDING);
            for (int i = 0; i < 2; i++) {
                restart();
                service.awaitLine("1013 requestUnifyCpuIOThreadCore", "scene=77 cpulevel=2 iolevel=1");
                awaitHeard("event 7 with 3 bytes");
                assertEquals(BOOST_SENT, boost.state());
            }
            assertEquals(List.of("connected", "event 7 with 3 bytes"),
                    HEARD.stream().filter(what -> !what.equals("disconnected")).toList());
        }
        service.awaitLine("1014 cancelUnifyCpuIOThreadCore", "cancelcpu=1 cancelio=1 cancelthread=0");
    }

    @Test
    public void b2EveryRequestReachesTheServiceInItsOwnForm() {
        Boost cpu = BOOSTER.boost(lasting(600_000).cpuLevel(3).scene(1).action(1L << 40).build());
        Boost threads = BOOSTER.boost(lasting(600_000).threads(NOBODY).callingThread(99).build());
        Boost io = BOOSTER.boost(lasting(600_000).ioLevel(2).build());
        Await.until("the refusals",
                () -> io.state() == BOOST_REFUSED && io.status() == 5 && threads.status() == 6);
        List.of(cpu, threads, io).forEach(Boost::close);
        BOOSTER.requestScreenResolution(4, "main ui");
        BOOSTER.resetScreenResolution();
        BOOSTER.preload(List.of("/a", "b c"));
        BOOSTER.checkPermission();
        BOOSTER.terminateApp();
        awaitHeard("termination refused with status 5");
        Await.until("no files", () -> HEARD.stream().anyMatch(what -> what.startsWith("preloading refused")));
        for (String line : List.of("1002 requestCpuHighFreq| scene=1 level=3 timeoutms=",
                     "1002 | action=1099511627776", "1003 cancelCpuHighFreq|",
                     "1004 requestCpuCoreForThread| tid=99 scene=0 bindtids=[" + NOBODY,
                     "1005 cancelCpuCoreForThread| bindtids=[" + NOBODY + "]", "1006 | level=2",
                     "1007 cancelHighIOFreq|", "1008 | level=4 uiName=\"main ui\"", "1009 |",
                     "1011 | files=2 [\"/a\", \"b c\"]", "1001 |")) {
            String[] parts = line.split("\\|", -1);
            service.awaitLine(parts[0], parts[1]);
        }
    }

    @Test
    public void b3WhileItIsOffTheServiceHoldsNothing() {
        Boost boost = BOOSTER.boost(lasting(60_000).scene(78).cpuLevel(1).build());
        service.awaitLine("1002 ", "scene=78");
        BOOSTER.setEnabled(false);
        awaitHeard("disabled");
        Await.until("off", () -> TarnBoosterJNI.cancelHighIOFreq(1, 1) == TarnBoosterJNI.NO_ENGINE);
        assertEquals(BOOST_PENDING, boost.state());
        BOOSTER.setEnabled(true);
        Await.until("on", () -> boost.state() == BOOST_SENT);
        boost.close();
    }

    @Test
    public void b4ADeafServiceHoldsNobodyUp() throws Exception {
        service.signal("STOP");
        Child.jam(BOOSTER);
        awaitHeard("unresponsive");
        long[] nanos = new long[100];
        for (int i = 0; i < nanos.length; i++) {
            long start = System.nanoTime();
            BOOSTER.boost(lasting(60_000).scene(79).cpuLevel(1).build()).close();
            nanos[i] = System.nanoTime() - start;
        }
        Arrays.sort(nanos);
        assertTrue("" + nanos[90], nanos[90] < 5_000_000);
        assertEquals("another process ends while its booster is stuck", Child.STUCK,
                Child.run(System.getProperty("java.library.path"), ServiceProcess.NAME));
        Boost late = BOOSTER.boost(lasting(60_000).cpuLevel(1).build());
        HEARD.clear();
        service.signal("CONT");
        awaitHeard("connected");
        Await.until("sent late", () -> late.state() == BOOST_SENT);
        late.close();
    }

    @Test
    public void b5WithoutTheLibraryNothingIsThrown() throws Exception {
        assertEquals(Child.ABSENT, Child.run("/", "nobody"));
    }
}
