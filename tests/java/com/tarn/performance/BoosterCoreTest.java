package com.tarn.performance;

import static com.tarn.performance.BoostRequest.lasting;
import static com.tarn.performance.BoosterCodes.*;
import static org.junit.Assert.*;

import java.util.*;
import java.util.concurrent.RejectedExecutionException;
import org.junit.Test;

/** The rules of the interface, with a library, a service and a clock that the test turns. */
public class BoosterCoreTest {
    private final FakeLibrary library = new FakeLibrary();
    private final BoosterCore core = library.core;
    private final TarnBooster booster = library.booster;

    private Boost cpu(int scene, int millis) {
        return library.boost(scene, lasting(millis).cpuLevel(2));
    }

    private static String state(Boost boost) {
        return boostName(boost.state()) + " " + boost.status();
    }

    @Test
    public void aRestartIsNoticedByALostRequestOrTheSignOfLife() {
        library.start().run(2000);
        library.restart();
        cpu(1, 1000);
        library.run(20);
        assertEquals(List.of(1), library.heldScenes());
        library.run(2000);
        assertEquals(
                "connected, 1 sent, disconnected, 1 pending, connected, 1 sent, 1 ended", library.told());
        assertEquals(1, library.servedCount(FUNCTION_REQUEST_CPU));
        library.served.clear();
        core.setEvents(true);
        Boost boost = cpu(1, 600_000);
        library.run(10_500);
        long signs = library.servedCount(FUNCTION_CHECK_PERMISSION);
        assertTrue("" + signs, signs >= 9 && signs <= 10);
        library.restart();
        library.run(1100);
        assertEquals(List.of(1), library.heldScenes());
        assertTrue(library.registered);
        boost.close();
        core.setEvents(false);
        library.run(5000);
        assertEquals(List.of(), library.heldScenes());
        assertEquals("nothing more to do", Long.MAX_VALUE, core.wakeIn());
        library.enabled = false; // by somebody else
        library.stamps.clear();
        cpu(2, 60_000);
        library.run(10_000);
        assertEquals("tried once in an interval", 10, library.stamps.size(), 1);
    }

    @Test
    public void whatWasRefusedIsNotAskedForAgain() {
        library.refusing.addAll(List.of(FUNCTION_REQUEST_CPU, FUNCTION_EVENTS));
        library.start();
        Boost refused = cpu(1, 60_000);
        Boost io = library.boost(2, lasting(60_000).ioLevel(1));
        Boost partly = library.boost(3, lasting(60_000).ioLevel(1));
        core.setEvents(true);
        booster.checkPermission();
        library.run(0);
        Request last = library.served.stream().filter(r -> r.scene == 3).findFirst().get();
        library.refuse(FUNCTION_REQUEST_CPU, last.stamp, 7); // of another function
        library.refuse(FUNCTION_REQUEST_IO, 0, 7);
        assertEquals("sent 0", state(partly));
        library.refuse(FUNCTION_REQUEST_IO, last.stamp, -20001);
        library.run(0);
        assertEquals("refused 5, sent 0, refused -20001",
                state(refused) + ", " + state(io) + ", " + state(partly));
        assertEquals("connected, 1 refused, 2 sent, 3 sent, events refused with status 5, 3 refused",
                library.told());
        io.close();
        library.run(0);
        partly.close();
        core.setEvents(true);
        library.run(3000);
        assertEquals("the first took both back", 1, library.servedCount(FUNCTION_CANCEL_IO));
        assertEquals(List.of(), library.heldScenes());
        assertEquals("asked for anew", 2, library.servedCount(FUNCTION_EVENTS));
        library.restart();
        cpu(4, 60_000);
        library.run(3000);
        assertEquals("each once", 2, library.servedCount(FUNCTION_REQUEST_CPU));
        assertEquals(2, library.servedCount(FUNCTION_REQUEST_IO));
        assertEquals(2, library.servedCount(FUNCTION_EVENTS));
    }

    @Test
    public void oneShotsAreMadeOnceOrDroppedInTimeAndBounded() {
        assertEquals(RESULT_NOT_STARTED, booster.terminateApp());
        assertEquals(BOOST_NOT_SENT, cpu(0, 1).state());
        library.serviceUp = false;
        library.start();
        assertEquals(RESULT_FULL, booster.preload(Collections.nCopies(257, "a".repeat(4096))));
        assertEquals(RESULT_ACCEPTED, booster.preload(Collections.nCopies(256, "a".repeat(4096))));
        assertEquals(RESULT_FULL, booster.requestScreenResolution(1, "b"));
        for (int i = 1; i < 32; i++) {
            assertEquals(RESULT_ACCEPTED, booster.terminateApp());
        }
        assertEquals(RESULT_FULL, booster.terminateApp());
        library.run(5000);
        String each = ", termination not sent";
        assertEquals("preloading not sent" + each.repeat(31), library.told());
        library.attempts = 0;
        cpu(1, 4000);
        library.run(10_000);
        assertEquals("while something is wanted", 4, library.attempts);
        assertEquals("1 not sent", library.told());
        assertEquals(Long.MAX_VALUE, core.wakeIn());
        library.restart();
        cpu(1, 2000);
        library.run(10_000);
        booster.resetScreenResolution();
        library.run(2000);
        assertEquals(1, library.servedCount(FUNCTION_RESET_SCREEN_RESOLUTION));
        assertEquals(0, library.servedCount(FUNCTION_TERMINATE_APP));

        library.refusing.add(FUNCTION_TERMINATE_APP);
        library.restart(); // unnoticed: what is made once is not risked on that connection
        assertEquals(RESULT_ACCEPTED, booster.preload(Collections.nCopies(513, "a")));
        assertEquals(RESULT_ACCEPTED, booster.terminateApp());
        library.run(1100);
        library.restart();
        cpu(1, 60_000);
        library.run(5000);
        assertEquals(List.of(256, 256, 1),
                library.served.stream()
                        .filter(request -> request.functionId == FUNCTION_PRELOAD)
                        .map(request -> request.names.length)
                        .toList());
        assertEquals(1, library.servedCount(FUNCTION_TERMINATE_APP));
        library.told();
        booster.resetScreenResolution();
        core.setEnabled(false);
        assertEquals(RESULT_DISABLED, booster.terminateApp());
        core.setDebug(true);
        library.run(0);
        assertEquals("disabled, reset of the screen resolution not sent, 1 pending", library.told());
        assertTrue(library.debug && !library.enabled);
    }

    @Test
    public void aLibraryThatDoesNotComeBackIsToldOfAndBoundsHold() {
        library.start();
        List<Boost> many = new ArrayList<>();
        library.during = () -> {
            library.during = () -> {};
            library.now += 1000 * FakeLibrary.MS;
            assertEquals(FakeLibrary.MS, core.watch());
            library.now += 2 * FakeLibrary.MS;
            assertEquals(CONNECTION_UNRESPONSIVE, core.connectionState());
            assertEquals(-1, core.watch());
            assertEquals("connected, unresponsive", library.told());
            for (int round = 0; round < 3; round++) {
                for (int i = 0; i < 255; i++) {
                    many.add(cpu(9, 1));
                }
                library.now += FakeLibrary.MS;
            }
            for (int i = 0; i < 256; i++) {
                many.add(cpu(9, 60_000));
            }
            assertTrue("" + core.tableSize(), core.tableSize() <= 512);
        };
        Boost slow = library.boost(1, lasting(2000).ioLevel(1));
        library.run(0);
        assertEquals("one had no room", 255, library.heldScenes().stream().filter(s -> s == 9).count());
        assertEquals(BOOST_NOT_SENT, many.get(many.size() - 1).state());
        String each = ", 9 sent";
        assertEquals("connected, 1 sent" + each.repeat(255), library.told());
        many.forEach(Boost::close);
        library.run(992);
        assertEquals("it is late at the service, and in time here", List.of(1), library.heldScenes());
        assertEquals(3, slow.remainingMillis());
        library.run(3);
        assertEquals(List.of(), library.heldScenes());
        assertTrue(core.watch() > 0);
        library.run(5000);
        assertEquals("the watchman may go", -1, core.watch());
    }

    @Test
    public void whatListenersThrowReachesTheHandlerAndRemovedOnesHearNothing() {
        List<Throwable> handled = new ArrayList<>();
        List<Runnable> tasks = new ArrayList<>();
        RuntimeException thrown = new RuntimeException("on purpose");
        FakeLibrary.Heard throwing = new FakeLibrary.Heard();
        throwing.then = () -> {
            throw thrown;
        };
        FakeLibrary.Heard noting = new FakeLibrary.Heard();
        core.addListener(throwing, Runnable::run);
        core.addListener(noting, Runnable::run);
        core.addListener(noting, tasks::add);
        core.addListener(new BoosterListener() {}, task -> { throw new RejectedExecutionException(); });
        Thread.currentThread().setUncaughtExceptionHandler((thread, what) -> handled.add(what));
        try {
            library.start();
            core.setEnabled(false);
            library.run(0);
        } finally {
            Thread.currentThread().setUncaughtExceptionHandler(null);
        }
        assertEquals(List.of(thrown, thrown), handled);
        tasks.get(0).run();
        core.removeListener(noting);
        tasks.get(1).run();
        assertEquals(List.of("connected"), noting.all);
        library.told();
        library.push(3);
        core.setEvents(true);
        library.push(4);
        assertEquals("event 4 with 4 bytes", library.told());
    }

    @Test
    public void withoutALibraryNothingIsThrownAndTheReasonIsKept() {
        IllegalStateException reason = new IllegalStateException("no library");
        library.loadFailure = new ExceptionInInitializerError(reason);
        core.start(BoosterConfig.of("s"), library, () -> {});
        cpu(1, 1000);
        booster.terminateApp();
        library.run(0);
        assertEquals("unavailable, 1 not sent, termination not sent", library.told());
        assertSame(reason, core.loadFailure());
        assertEquals(BOOST_NOT_SENT, cpu(2, 1000).state());
        assertEquals(RESULT_UNAVAILABLE, booster.terminateApp());
        assertFalse(core.start(BoosterConfig.of("s"), library, () -> {}));
    }

    @Test
    public void mistakesAreRefused() {
        for (int wrong : new int[] {0, -1, 600_001}) {
            assertThrows(IllegalArgumentException.class, () -> lasting(wrong));
        }
        for (String wrong : new String[] {"", "a\0", "ä".repeat(54)}) {
            assertThrows(IllegalArgumentException.class, () -> BoosterConfig.of(wrong));
        }
        String text = "a".repeat(4097);
        assertThrows(IllegalStateException.class, () -> lasting(1).build());
        assertThrows(IllegalArgumentException.class, () -> lasting(1).threads());
        assertThrows(IllegalArgumentException.class, () -> lasting(1).threads(new int[65]));
        assertThrows(IllegalArgumentException.class, () -> lasting(1).cpuLevel(0));
        assertThrows(IllegalArgumentException.class, () -> booster.requestScreenResolution(1, text));
    }

    /** What every boost of a story comes to, whatever happens on the way. */
    @Test
    public void theServiceHoldsWhatIsWantedAfterAnyStory() {
        for (int seed = 0; seed < 1000; seed++) {
            try {
                new Story().tell(seed);
            } catch (Throwable failure) {
                throw new AssertionError("story " + seed, failure);
            }
        }
    }

    private static final class Story {
        final Random random = new Random();
        final FakeLibrary library = new FakeLibrary();
        final List<Boost> boosts = new ArrayList<>();
        int scenes;

        void tell(int seed) {
            random.setSeed(seed);
            library.heard.then = () -> library.during.run(); // between a decision and its request
            library.start();
            library.during = () -> {
                if (random.nextInt(6) == 0) {
                    something(); // while a request is being made
                }
            };
            for (int i = 0; i < 40; i++) {
                something();
                library.run(random.nextInt(3) == 0 ? random.nextInt(2500) : random.nextInt(20));
            }
            library.during = () -> {};
            library.enabled = true;
            library.core.setEnabled(true);
            library.serviceUp = true;
            library.run(4000);
            library.restart(); // noticed at once by what somebody else does
            library.foreignRequest();
            library.now += 10 * FakeLibrary.MS;
            library.foreignRequest();
            library.run(10);
            List<Integer> wanted = new ArrayList<>();
            for (Boost boost : boosts) {
                for (int ignored : boost.state() == BOOST_SENT ? boost.request().parts() : new int[0]) {
                    wanted.add(boost.request().scene());
                }
                assertTrue(boost.toString(), boost.state() != BOOST_PENDING);
            }
            Collections.sort(wanted);
            assertEquals(wanted, library.heldScenes());
            assertTrue(library.registered);
            for (FakeLibrary.Hold hold : library.holds) {
                long overtime = hold.until() - boosts.get(hold.scene()).endsAt;
                assertTrue("" + overtime, overtime >= 0 && overtime < FakeLibrary.MS);
            }
        }

        void something() {
            int what = random.nextInt(12);
            if (what < 4) {
                boosts.add(library.boost(scenes++, request()));
            } else if (what < 7 && !boosts.isEmpty()) {
                boosts.get(random.nextInt(boosts.size())).close();
            } else if (what == 7) {
                library.kill();
            } else if (what == 8) {
                library.restart();
            } else if (what == 9) {
                library.core.setEnabled(random.nextBoolean());
            } else if (what == 10) {
                library.enabled &= random.nextInt(4) != 0; // somebody else switches it off
            } else if (what == 11) {
                library.foreignRequest();
            }
            library.core.setEvents(true);
        }

        BoostRequest.Builder request() {
            int millis = random.nextBoolean() ? 60_000 : 1 + random.nextInt(5000);
            BoostRequest.Builder request = lasting(millis);
            int kind = 1 + random.nextInt(7);
            if ((kind & 1) != 0) {
                request.cpuLevel(1 + random.nextInt(3));
            }
            if ((kind & 2) != 0) {
                request.ioLevel(1);
            }
            if ((kind & 4) != 0) {
                request.threads(100 + random.nextInt(3), 200 + random.nextInt(3));
            }
            return request;
        }
    }
}
