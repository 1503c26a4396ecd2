package com.tarn.performance;

import static com.tarn.performance.BoosterCodes.*;
import static org.junit.Assert.*;

import java.lang.reflect.*;
import java.util.*;
import java.util.stream.IntStream;

/** The library, a service behind it, and the time, for one core that the test turns by hand. */
final class FakeLibrary implements Natives {
    static final long MS = BoosterCore.MS;
    static final Runnable NOTHING = () -> {};

    /** What the service holds: a part of one request. Boosts are told apart by their scenes. */
    record Hold(int functionId, int scene, int part, long until) {}

    /** A listener that writes down what it hears; `then` runs after a change of the connection. */
    static BoosterListener writer(List<String> heard, Runnable then) {
        InvocationHandler write = (proxy, method, args) -> {
            String name = method.getName();
            heard.add(name.equals("onConnectionChanged") ? connectionName((int) args[0])
                            : name.equals("onBoostChanged")
                            ? ((Boost) args[0]).request().scene() + " " + boostName((int) args[1])
                            : name.equals("onNotSent") ? functionName((int) args[0]) + " not sent"
                                                       : args[0].toString());
            (name.equals("onConnectionChanged") ? then : NOTHING).run();
            return null;
        };
        Class<?>[] type = {BoosterListener.class};
        return (BoosterListener) Proxy.newProxyInstance(FakeLibrary.class.getClassLoader(), type, write);
    }

    final BoosterCore core = new BoosterCore(() -> this.now);
    final TarnBooster booster = new TarnBooster(core);
    final List<Request> served = new ArrayList<>();
    final List<Hold> holds = new ArrayList<>();
    final List<String> heard = new ArrayList<>();
    final Set<Integer> made = new HashSet<>(); // requests that are made once
    final Map<Integer, Integer> verdicts = new HashMap<>(); // of scenes and function identifiers: a status
    private final Set<Integer> refused = new HashSet<>(); // scenes
    Runnable during = NOTHING; // runs inside every request
    Runnable then = NOTHING; // runs after a change of the connection
    Error loadFailure;
    boolean serviceUp = true, enabled = true, registered, debug;
    int attempts, lostOneShots;
    long now = 1_000_000 * MS, interval;

    private TarnBoosterListener receiver;
    private final Queue<Long> notices = new ArrayDeque<>(); // when reports of a missing engine arrive
    final Set<Long> stamps = new HashSet<>();
    private boolean engine;
    private boolean broken; // the service has gone from the other end of the engine's socket
    private long brokenSince, engineEnds = Long.MAX_VALUE;
    private long lastStart = Long.MIN_VALUE / 2, lastOwnAttempt = lastStart;

    FakeLibrary() {
        core.addListener(writer(heard, () -> then.run()), Runnable::run);
    }

    /** Starts the core with an interval of one second and lets it do what there is to do. */
    FakeLibrary start() {
        BoosterConfig.Builder config = BoosterConfig.builder("s").retryIntervalSeconds(1).debugLog(true);
        assertTrue(core.start(config.build(), this, () -> {}));
        return run(0);
    }

    /** Lets the core work for a time. */
    FakeLibrary run(long millis) {
        long end = now + millis * MS;
        for (int steps = 0;; steps++) {
            assertTrue("it spins", steps < 20_000);
            while (!notices.isEmpty() && notices.peek() <= now) {
                notices.remove();
                if (enabled) {
                    receiver.onData(1, 0, TarnBoosterJNI.STATUS_NO_ENGINE, 0, 0, new byte[0]);
                }
            }
            if (core.step()) {
                continue;
            }
            long next = now + Math.min(Math.max(core.wakeIn(), 0), Long.MAX_VALUE / 2);
            next = notices.isEmpty() ? next : Math.min(next, notices.peek());
            if (next > end) {
                now = Math.max(now, end);
                return this;
            }
            now = next;
        }
    }

    /** What the listener has heard since the last call. */
    String told() {
        String all = String.join(", ", heard);
        heard.clear();
        return all;
    }

    Boost boost(int scene, BoostRequest.Builder request) {
        return core.boost(request.scene(scene).build());
    }

    /** The scenes of what the service holds now, sorted, one for each part. */
    List<Integer> heldScenes() {
        holds.removeIf(hold -> hold.until <= now);
        return holds.stream().map(Hold::scene).sorted().toList();
    }

    /** The service ends, and what it held with it. */
    void kill() {
        serviceUp = false;
        brokenSince = broken ? brokenSince : now;
        broken = engine;
        registered = false;
        holds.clear();
    }

    void restart() {
        kill();
        serviceUp = true;
    }

    /** Somebody else in the process makes a request. */
    void foreignRequest() {
        if (enabled && find(false)) {
            write(new Request(FUNCTION_CHECK_PERMISSION));
        }
    }

    long servedCount(int functionId) {
        return served.stream().filter(request -> request.functionId == functionId).count();
    }

    void push(int code) {
        receiver.onData(2, 0, 0, 1010, code, new byte[code]);
    }

    void refuse(int functionId, long stamp, int status) {
        receiver.onData(1, stamp, status, functionId, 0, new byte[0]);
    }

    // ---- the library ----

    @Override
    public void load(TarnBoosterListener receiver) {
        this.receiver = receiver;
        if (loadFailure != null) {
            throw loadFailure;
        }
        now += 2000 * MS; // it may take its time
        assertEquals(CONNECTION_DISCONNECTED, core.connectionState());
    }

    @Override
    public void setDebug(boolean on) {
        debug = on;
    }

    @Override
    public void init(String serviceName, String localName, int retryIntervalSeconds) {
        assertTrue("set from the start", debug);
        interval = retryIntervalSeconds * 1000L * MS;
        tryStart(true);
    }

    @Override
    public void setEnabled(boolean on) {
        if (on && !enabled) {
            tryStart(false);
        }
        enabled = on;
    }

    @Override
    public boolean isRunning() {
        engine &= now < engineEnds;
        return engine;
    }

    @Override
    public int send(Request request) {
        assertTrue("stamps are unique", request.stamp != 0 && stamps.add(request.stamp));
        during.run();
        if (!enabled || !find(true)) {
            return TarnBoosterJNI.NO_ENGINE;
        }
        write(request);
        return (int) (now / 1000) * 1_000_003; // of either sign
    }

    private boolean find(boolean own) {
        if (enabled && !isRunning()) {
            notices.add(now + 3 * MS);
        }
        return tryStart(own);
    }

    private boolean tryStart(boolean own) {
        if (isRunning()) {
            return true;
        }
        if (own) {
            assertTrue("attempts come too fast", now - lastOwnAttempt >= interval);
            lastOwnAttempt = now;
            attempts++;
        }
        if (now - lastStart < interval) {
            return false;
        }
        lastStart = now;
        engine = serviceUp;
        broken = false;
        engineEnds = Long.MAX_VALUE;
        return engine;
    }

    private void write(Request request) {
        if (!isRunning()) {
            return;
        }
        if (broken) {
            engineEnds = Math.min(engineEnds, now + 5 * MS);
            if (request.functionId == FUNCTION_REQUEST_SCREEN_RESOLUTION) {
                assertTrue("not risked on a silent connection", now - brokenSince < 1000 * MS);
                lostOneShots++;
            }
            return; // queued, and lost
        }
        served.add(request);
        int function = request.functionId;
        assertTrue("too many", request.names == null || request.names.length <= 256);
        assertTrue("twice", function != FUNCTION_REQUEST_SCREEN_RESOLUTION || made.add(request.cpuLevel));
        boolean boost = Set.of(1002, 1004, 1006, 1013).contains(function);
        int status = verdicts.getOrDefault(boost ? request.scene : function, 0);
        assertTrue("not asked again", status < 2 || !boost || refused.add(request.scene));
        registered |= function == FUNCTION_EVENTS && status == 0;
        if (boost && status < 2) {
            long until = now + request.timeoutMillis * MS;
            parts(request, request.cpuLevel != 0, request.ioLevel != 0)
                    .forEach(part -> holds.add(new Hold(function, request.scene, part, until)));
        } else if (Set.of(1003, 1005, 1007, 1014).contains(function)) {
            Set<Integer> parts = parts(request, request.cancelCpu, request.cancelIo);
            holds.removeIf(hold -> hold.functionId == function - 1 && parts.contains(hold.part));
        }
        if (status != 0) {
            refuse(function, request.stamp, status);
        }
    }

    private static Set<Integer> parts(Request request, boolean cpu, boolean io) {
        Set<Integer> parts = new HashSet<>(cpu ? Set.of(BoostRequest.CPU) : Set.of());
        IntStream.of(request.threads).forEach(parts::add);
        if (io) {
            parts.add(BoostRequest.IO);
        }
        return parts;
    }
}
