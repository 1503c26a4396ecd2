package com.tarn.performance;

import static com.tarn.performance.BoostRequest.lasting;
import static com.tarn.performance.BoosterCodes.*;
import static org.junit.Assert.*;

import java.util.*;
import java.util.concurrent.RejectedExecutionException;
import java.util.stream.*;
import org.junit.Test;

/** The rules of the interface, with a library, a service and a clock that the test turns. */
public class BoosterCoreTest {
    private final FakeLibrary library = new FakeLibrary();
    private final BoosterCore core = library.core;
    private final TarnBooster booster = library.booster;

    private Boost cpu(int scene, int millis) {
        return library.boost(scene, lasting(millis).cpuLevel(2));
    }

    @Test
    public void aRestartIsNoticedByALostRequestAndSignsOfLifeAreRare() {
        library.start().run(2000);
        library.restart();
        cpu(1, 1000);
        library.run(20);
        assertEquals(List.of(1), library.heldScenes());
        library.run(2000);
        assertEquals(
                "connected, 1 sent, disconnected, 1 pending, connected, 1 sent, 1 ended", library.told());
        core.setEvents(true);
        library.served.clear();
        library.run(0).refuse(FUNCTION_EVENTS, 1, 5); // another registration
        library.run(10_500);
        assertEquals(9.5, library.servedCount(FUNCTION_CHECK_PERMISSION), 0.5);
        core.setEvents(false);
        library.run(5000);
        assertEquals("nothing more to do", Long.MAX_VALUE, core.wakeIn());
        library.enabled = false; // by somebody else
        library.stamps.clear();
        cpu(2, 60_000);
        library.run(10_000);
        assertEquals("tried once in an interval", 10, library.stamps.size(), 1);
    }

    @Test
    public void refusalsFindTheirBoostAndAPartThatWasServedIsKept() {
        library.verdicts.putAll(Map.of(1, 5, 4, 1, FUNCTION_EVENTS, 5));
        library.start();
        Boost refused = cpu(1, 60_000);
        List<Boost> io = Stream.of(2, 3, 4).map(s -> library.boost(s, lasting(60_000).ioLevel(1))).toList();
        core.setEvents(true);
        booster.checkPermission();
        library.run(0);
        long[] stamps = library.served.stream().filter(r -> r.ioLevel == 1).mapToLong(r -> r.stamp).toArray();
        library.refuse(FUNCTION_REQUEST_CPU, stamps[0], 7); // of another function
        library.refuse(FUNCTION_REQUEST_IO, 0, 7);
        library.refuse(FUNCTION_REQUEST_IO, stamps[1], -20001);
        library.run(0);
        assertEquals("connected, 1 refused, 2 sent, 3 sent, 4 served in part, events refused with status 5, "
                        + "3 refused",
                library.told());
        assertEquals(List.of(5, 0, -20001, 1),
                List.of(refused.status(), io.get(0).status(), io.get(1).status(), io.get(2).status()));
        io.get(0).close();
        library.run(0);
        io.get(1).close();
        core.setEvents(true);
        library.run(3000);
        assertEquals("the first took back all three", 1, library.servedCount(FUNCTION_CANCEL_IO));
        library.restart();
        library.run(3000);
        assertEquals(BOOST_PARTLY, io.get(2).state());
        assertEquals(List.of(4), library.heldScenes());
        assertEquals("asked for anew once", 2, library.servedCount(FUNCTION_EVENTS));
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
        cpu(2, 60_000).close(); // which its owner knows
        library.run(5000);
        assertEquals("preloading not sent"
                        + ", termination not sent".repeat(31),
                library.told());
        library.attempts = 0;
        cpu(1, 4000);
        library.run(10_000);
        assertEquals("while something is wanted", 4, library.attempts);
        assertEquals("1 not sent", library.told());
        assertEquals(Long.MAX_VALUE, core.wakeIn());
        library.restart();
        cpu(1, 2000);
        library.run(10_000);
        for (int frame = 0; frame < 300; frame++) {
            if (frame == 200) {
                booster.resetScreenResolution();
            }
            Boost boost = cpu(1, 1000);
            library.run(4);
            boost.close();
            library.run(4);
        }
        assertEquals("amid others", 1, library.servedCount(FUNCTION_RESET_SCREEN_RESOLUTION));
        assertEquals(0, library.servedCount(FUNCTION_TERMINATE_APP));
        library.told();
        library.served.stream()
                .filter(request -> request.functionId == FUNCTION_CANCEL_CPU)
                .limit(1)
                .forEach(request -> library.refuse(FUNCTION_CANCEL_CPU, request.stamp, 5));
        assertEquals("only the latest are remembered", "", library.told());
        assertEquals(RESULT_ACCEPTED, booster.preload(Collections.nCopies(513, "a")));
        cpu(1, 60_000);
        library.run(100);
        assertEquals("512 names and the last one", 3, library.servedCount(FUNCTION_PRELOAD));
        library.told();
        booster.resetScreenResolution();
        core.setEnabled(false);
        assertEquals(RESULT_DISABLED, booster.terminateApp());
        core.setDebug(false);
        library.run(0);
        assertEquals("disabled, reset of the screen resolution not sent, 1 pending", library.told());
        assertFalse(library.debug || library.enabled);
    }

    @Test
    public void aLibraryThatDoesNotComeBackIsToldOfAndBoundsHold() {
        library.start();
        List<Boost> many = new ArrayList<>();
        library.during = () -> {
            library.during = FakeLibrary.NOTHING;
            library.now += 1000 * FakeLibrary.MS;
            assertEquals(FakeLibrary.MS, core.watch());
            library.now += 2 * FakeLibrary.MS;
            assertEquals(CONNECTION_UNRESPONSIVE, core.connectionState());
            assertEquals(-1, core.watch());
            assertEquals("connected, unresponsive", library.told());
            for (int i = 0; i < 255 * 3 + 256; i++) {
                library.now += i % 255 == 0 ? FakeLibrary.MS : 0;
                many.add(cpu(9, i < 255 * 3 ? 1 : 60_000));
            }
            assertTrue("" + core.tableSize(), core.tableSize() <= 512);
        };
        Boost slow = library.boost(1, lasting(2000).ioLevel(1));
        library.run(0);
        assertEquals("one had no room", 255, library.heldScenes().stream().filter(s -> s == 9).count());
        assertEquals(BOOST_NOT_SENT, many.get(many.size() - 1).state());
        assertEquals("connected, 1 sent"
                        + ", 9 sent".repeat(255),
                library.told());
        many.forEach(Boost::close);
        library.run(992);
        assertEquals("it is late at the service, and in time here", List.of(1), library.heldScenes());
        assertEquals(1, slow.remainingMillis());
        library.run(1);
        assertEquals(List.of(), library.heldScenes());
        assertTrue(core.watch() > 0);
        library.run(5000);
        assertEquals(0, slow.remainingMillis());
        assertEquals("the watchman may go", -1, core.watch());
    }

    @Test
    public void whatListenersThrowReachesTheHandlerAndRemovedOnesHearNothing() {
        List<Throwable> handled = new ArrayList<>();
        List<Runnable> tasks = new ArrayList<>();
        RuntimeException thrown = new RuntimeException("on purpose");
        List<String> heard = new ArrayList<>();
        BoosterListener noting = FakeLibrary.writer(heard, FakeLibrary.NOTHING);
        library.then = () -> {
            throw thrown;
        };
        core.addListener(noting, tasks::add);
        core.addListener(new BoosterListener() {}, task -> { throw new RejectedExecutionException(); });
        Thread.currentThread().setUncaughtExceptionHandler((thread, what) -> handled.add(what));
        try {
            library.start();
            core.addListener(noting, Runnable::run);
            core.setEnabled(false);
            library.run(0);
        } finally {
            Thread.currentThread().setUncaughtExceptionHandler(null);
        }
        assertEquals(List.of(thrown, thrown), handled);
        assertEquals("not added twice", 1, tasks.size());
        tasks.get(0).run();
        core.removeListener(noting);
        tasks.get(0).run();
        assertEquals("only the executor was another", List.of("disabled", "connected"), heard);
        library.told();
        core.setEvents(true);
        library.push(3);
        core.setEnabled(true);
        library.push(4);
        core.setEvents(false);
        library.push(5);
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
    }

    @Test
    public void mistakesAreRefused() {
        Class<IllegalArgumentException> refusal = IllegalArgumentException.class;
        IntStream.of(0, -1, 600_001).forEach(time -> assertThrows(refusal, () -> lasting(time)));
        Stream.of("", "a\0", "ä".repeat(54)).forEach(n -> assertThrows(refusal, () -> BoosterConfig.of(n)));
        assertThrows(IllegalStateException.class, () -> lasting(1).build());
        assertThrows(refusal, () -> lasting(1).threads());
        assertThrows(refusal, () -> lasting(1).threads(new int[65]));
        assertThrows(refusal, () -> lasting(1).cpuLevel(0));
        assertThrows(refusal, () -> booster.requestScreenResolution(1, "a".repeat(4097)));
        BoosterListener listener = new BoosterListener() {};
        assertThrows(NullPointerException.class, () -> booster.addListener(listener, null));
        int[] threads = {5};
        BoostRequest request = lasting(1).threads(threads).build();
        threads[0] = 6;
        request.threads()[0] = 7;
        assertArrayEquals(new int[] {5}, request.threads());
    }

    @Test
    public void aBoostIsNewsOnce() {
        News news = new News();
        Boost boost = cpu(1, 1000);
        news.changed(boost);
        assertEquals(1, news.take(CONNECTION_DISCONNECTED, library.now).size());
        boost.rejected = false;
        assertEquals("nobody keeps it", 0, news.take(CONNECTION_DISCONNECTED, library.now).size());
    }

    /** What every boost of a story comes to, whatever happens on the way. */
    @Test
    public void theServiceHoldsWhatIsWantedAfterAnyStory() {
        for (int seed = 0; seed < 3000; seed++) {
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
        int scenes, oneShots;
        boolean eventsWanted;

        void tell(int seed) {
            random.setSeed(seed);
            library.then = () -> library.during.run(); // between a decision and its request
            eventsWanted = seed % 2 == 0;
            library.start();
            library.during = () -> {
                if (random.nextInt(6) == 0) {
                    something(); // while a request is being made
                }
            };
            for (int i = 0; i < 40; i++) {
                library.now += random.nextInt(1000); // no whole milliseconds
                something();
                library.run(random.nextInt(3) == 0 ? random.nextInt(2500) : random.nextInt(20));
            }
            library.during = FakeLibrary.NOTHING;
            library.enabled = library.serviceUp = true;
            library.core.setEnabled(true);
            library.run(4000);
            assertSettled();
            library.restart(); // which the sign of life shows
            if (random.nextBoolean()) { // unless somebody else has noticed, and connected again
                library.foreignRequest();
                library.now += 10 * FakeLibrary.MS;
                library.foreignRequest();
            }
            library.run(1100);
            assertSettled();
        }

        void assertSettled() {
            List<Integer> wanted = new ArrayList<>();
            for (Boost boost : boosts) {
                int scene = boost.request().scene();
                int served = List.of(BOOST_SENT, BOOST_PARTLY).indexOf(boost.state());
                assertTrue("" + boost, boost.state() != BOOST_PENDING);
                assertTrue("" + boost, served < 0 || served == library.verdicts.get(scene));
                wanted.addAll(Collections.nCopies(served < 0 ? 0 : boost.request().parts().length, scene));
            }
            Collections.sort(wanted);
            assertEquals(wanted, library.heldScenes());
            assertEquals(eventsWanted, library.registered);
            int notSent = Collections.frequency(library.heard, "screen resolution not sent");
            assertEquals("none forgotten", oneShots, library.made.size() + notSent + library.lostOneShots);
            library.holds.forEach(hold
                    -> assertEquals("within 1 ms", FakeLibrary.MS / 2.,
                            hold.until() - boosts.get(hold.scene()).endsAt, FakeLibrary.MS / 2.));
        }

        void something() {
            int what = random.nextInt(13);
            if (what < 4) {
                library.verdicts.put(scenes, List.of(0, 0, 0, 1, 5).get(random.nextInt(5)));
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
            } else if (library.booster.requestScreenResolution(oneShots, "") == RESULT_ACCEPTED) {
                oneShots++;
            }
            library.core.setEvents(eventsWanted);
        }

        BoostRequest.Builder request() {
            BoostRequest.Builder request = lasting(random.nextBoolean() ? 60_000 : 1 + random.nextInt(5000));
            int kind = 1 + random.nextInt(7);
            request = (kind & 1) != 0 ? request.cpuLevel(1 + random.nextInt(3)) : request;
            request = (kind & 2) != 0 ? request.ioLevel(1) : request;
            return (kind & 4) != 0 ? request.threads(100 + random.nextInt(3), 200 + random.nextInt(3))
                                   : request;
        }
    }
}
