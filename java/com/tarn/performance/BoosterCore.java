package com.tarn.performance;

import java.util.ArrayList;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.Executor;
import java.util.function.Consumer;
import java.util.function.LongSupplier;

/**
 * The booster's state and rules, without a thread of its own: {@link BoosterThread} calls {@link #step} again
 * and again, and each step enters the library at most once.
 *
 * <p>What is wanted stands in the table of boosts and a few flags, which public methods change under the
 * lock. What was sent stands beside it. A step compares the two and makes the next request that brings them
 * together: cancels first, then boosts, the registration for events, one-shot requests, and a sign of life.
 *
 * <p>What the library does not tell is found out:
 *
 * <ul>
 *   <li>The first request into a connection that has broken counts as queued, and is lost. So after every
 *       request the connection is looked at again ({@link #CHECKS}); when it has ended, the service holds
 *       nothing any more, and all that is still wanted is asked for again.
 *   <li>A connection breaks without a word while no request is made. So a permission check goes out as a sign
 *       of life, once in a retry interval, while the service is to hold something; and before a one-shot
 *       request after a silence, since that must neither be lost nor made twice.
 *   <li>Somebody else in the process may make requests and so restart the connection unseen. Then the library
 *       reports {@link TarnBoosterJNI#STATUS_NO_ENGINE}; after a report that none of our own attempts
 *       explains, everything is cancelled and asked for again, which is right in either case.
 * </ul>
 *
 * <p>The lock is never held while the library, a listener or an executor is called, so whoever waits for it
 * waits for a walk through the table at most.
 */
final class BoosterCore implements TarnBoosterListener {
    static final long MS = 1_000_000L;
    /** A native that was entered longer ago makes the booster unresponsive. */
    static final long UNRESPONSIVE_NANOS = 1000 * MS;
    static final int MAX_NAMES = 256;
    /** When the connection is looked at after a request: a write that fails ends it within moments. */
    private static final long[] CHECKS = {10 * MS, 100 * MS, 1000 * MS};
    /** A request that is made once goes over a connection that was found alive no longer ago than this. */
    private static final long PROOF_LASTS = 1000 * MS;
    /** The library counts its interval on another clock, in whole milliseconds. */
    private static final long INTERVAL_MARGIN = 50 * MS;
    private enum Phase { NEW, LOADING, CONFIGURING, READY, UNAVAILABLE }

    private final LongSupplier clock; // nanoseconds that never step
    private final Listeners listeners = new Listeners();
    private final Object deliveryLock = new Object(); // keeps deliveries in order; taken before `lock`
    private final Object lock = new Object(); // guards all below

    // Set by start(), then only read: by the thread, without the lock.
    private Natives natives;
    private Runnable startWatch;
    private long interval; // nanoseconds

    // What is wanted.
    private final BoostTable table = new BoostTable();
    private final OneShots oneShots = new OneShots();
    private boolean eventsWanted;
    private boolean wantEnabled = true;
    private boolean wantDebug;

    // What the library was told, and what is known of it.
    private Phase phase = Phase.NEW;
    private BoosterConfig config; // null before the start, and once the library is configured
    private Throwable loadFailure;
    private boolean enabled = true;
    private boolean debug;
    private boolean connected;
    private boolean eventsAsked; // on the present connection
    private boolean eventsRefused;
    private long eventsStamp;
    private final Stamps stamps = new Stamps();
    private int ownNotices; // reports of a missing connection that our own attempts have caused, yet to come
    private boolean suspect; // such a report came that they do not explain
    private boolean takeBack; // so everything is being cancelled, to be asked for again

    // What the thread does when. Times are those of the clock.
    private boolean marked; // something has changed that it has not seen
    private long wakeIn; // nanoseconds until it has something to do if nothing changes
    private boolean lookDue; // the connection has to be looked at before anything else
    private boolean fresh; // nothing was done since the last look at the connection
    private boolean noEngine; // the latest request was told that there is no connection
    private boolean muted; // requests find none, although it stands: somebody else has switched it off
    private long muteUntil;
    private long attemptAt; // no attempt to connect before
    private long lastSent;
    private int check = CHECKS.length; // the next of CHECKS
    private long provenAt; // the connection carried something then, as far as can be told
    private boolean inside; // the library has been entered
    private long enteredAt;
    private boolean watched; // a watchman lives

    // What listeners have yet to be told.
    private int announced = BoosterCodes.CONNECTION_DISCONNECTED; // what they know
    private final Set<Boost> changed = new LinkedHashSet<>(); // no more than ever were in the table since
    private final List<Integer> notSent = new ArrayList<>();

    BoosterCore(LongSupplier clock) {
        this.clock = clock;
    }

    // ---- for the public methods: any thread, at once ----

    /** @param startWatch makes some thread call watch() again and again; called on the thread */
    boolean start(BoosterConfig config, Natives natives, Runnable startWatch) {
        synchronized (lock) {
            if (phase != Phase.NEW) {
                return false;
            }
            phase = Phase.LOADING;
            this.config = config;
            this.natives = natives;
            this.startWatch = startWatch;
            interval = config.retryIntervalSeconds() * 1000L * MS;
            wantDebug |= config.debugLog();
            return true;
        }
    }

    void addListener(BoosterListener listener, Executor executor) {
        listeners.add(listener, executor);
    }

    void removeListener(BoosterListener listener) {
        listeners.remove(listener);
    }

    Boost boost(BoostRequest request) {
        synchronized (lock) {
            long now = clock.getAsLong();
            Boost boost = new Boost(this, request, now);
            boost.rejected = phase == Phase.NEW || phase == Phase.UNAVAILABLE || !table.add(boost, now);
            mark();
            return boost;
        }
    }

    void close(Boost boost) {
        synchronized (lock) {
            if (table.close(boost, clock.getAsLong())) {
                if (boost.everAsked) {
                    changed.add(boost);
                }
                mark();
            }
        }
    }

    int stateOf(Boost boost) {
        synchronized (lock) {
            return boost.state(clock.getAsLong());
        }
    }

    int statusOf(Boost boost) {
        synchronized (lock) {
            return boost.status;
        }
    }

    int remainingMillisOf(Boost boost) {
        synchronized (lock) {
            long now = clock.getAsLong();
            return boost.isOpen(now) ? millis(boost.endsAt - now) : 0;
        }
    }

    /** Takes all of these requests, or none. */
    int oneShots(List<Request> requests) {
        synchronized (lock) {
            if (phase == Phase.NEW) {
                return BoosterCodes.RESULT_NOT_STARTED;
            }
            if (phase == Phase.UNAVAILABLE) {
                return BoosterCodes.RESULT_UNAVAILABLE;
            }
            if (!wantEnabled) {
                return BoosterCodes.RESULT_DISABLED;
            }
            if (!oneShots.add(requests, clock.getAsLong())) {
                return BoosterCodes.RESULT_FULL;
            }
            mark();
            return BoosterCodes.RESULT_ACCEPTED;
        }
    }

    void setEvents(boolean wanted) {
        synchronized (lock) {
            eventsWanted = wanted;
            eventsRefused = false;
            mark();
        }
    }

    void setEnabled(boolean on) {
        synchronized (lock) {
            wantEnabled = on;
            mark();
        }
    }

    void setDebug(boolean on) {
        synchronized (lock) {
            wantDebug = on;
            mark();
        }
    }

    int connectionState() {
        synchronized (lock) {
            return connectionState(clock.getAsLong());
        }
    }

    Throwable loadFailure() {
        synchronized (lock) {
            return loadFailure;
        }
    }

    /** The library or the thread cannot be had, for good. */
    void fail(Throwable why) {
        synchronized (lock) {
            phase = Phase.UNAVAILABLE;
            loadFailure = why;
            config = null;
            table.clear(boost -> {
                boost.rejected = true;
                changed.add(boost);
            });
            oneShots.drop(clock.getAsLong(), true, notSent::add);
        }
    }

    private void mark() {
        marked = true;
        lock.notifyAll();
    }

    private static int millis(long nanos) {
        return (int) ((nanos + MS - 1) / MS);
    }

    // ---- for the library's callback thread ----

    @Override
    public void onData(int type, long timestamp, int status, int funcid, int code, byte[] data) {
        if (type == TarnBoosterJNI.TYPE_DATA) {
            boolean wanted;
            synchronized (lock) {
                wanted = eventsWanted;
            }
            if (wanted) {
                deliver(new ServiceReport(funcid, 0, code, data), true);
            }
        } else if (status == TarnBoosterJNI.STATUS_NO_ENGINE && funcid == 0) {
            noticed();
        } else {
            refused(funcid, timestamp, status);
        }
    }

    private void noticed() {
        synchronized (lock) {
            if (ownNotices > 0) {
                ownNotices--;
            } else {
                suspect = true;
                mark();
            }
        }
    }

    private void refused(int functionId, long stamp, int status) {
        boolean report;
        synchronized (lock) {
            Boost boost = stamp == 0 ? null : table.find(functionId, stamp);
            if (boost != null && !boost.over) {
                boost.refused = true;
                boost.status = status;
                changed.add(boost);
            }
            boolean events =
                    functionId == BoosterCodes.FUNCTION_EVENTS && stamp == eventsStamp && eventsAsked;
            if (events) {
                eventsRefused = true;
                eventsAsked = false;
            }
            report = events || stamps.remembers(functionId, stamp);
            mark();
        }
        announce();
        if (report) {
            deliver(new ServiceReport(functionId, status, 0, new byte[0]), false);
        }
    }

    private void deliver(ServiceReport report, boolean event) {
        synchronized (deliveryLock) {
            listeners.deliver(listener -> {
                if (event) {
                    listener.onServiceEvent(report);
                } else {
                    listener.onRefused(report);
                }
            });
        }
    }

    // ---- for every thread of the booster's own, and the callback thread ----

    /** Tells listeners what has changed since the last call. */
    void announce() {
        synchronized (deliveryLock) {
            List<Consumer<BoosterListener>> calls = new ArrayList<>();
            synchronized (lock) {
                long now = clock.getAsLong();
                int state = connectionState(now);
                if (state != announced) {
                    announced = state;
                    calls.add(listener -> listener.onConnectionChanged(state));
                }
                for (Boost boost : changed) {
                    int boostState = boost.state(now);
                    if (boostState != boost.announced) {
                        boost.announced = boostState;
                        calls.add(listener -> listener.onBoostChanged(boost, boostState));
                    }
                }
                changed.clear();
                for (int functionId : notSent) {
                    calls.add(listener -> listener.onNotSent(functionId));
                }
                notSent.clear();
            }
            calls.forEach(listeners::deliver);
        }
    }

    private int connectionState(long now) {
        if (phase == Phase.UNAVAILABLE) {
            return BoosterCodes.CONNECTION_UNAVAILABLE;
        }
        if (isStuck(now)) {
            return BoosterCodes.CONNECTION_UNRESPONSIVE;
        }
        if (!wantEnabled) {
            return BoosterCodes.CONNECTION_DISABLED;
        }
        return connected ? BoosterCodes.CONNECTION_CONNECTED : BoosterCodes.CONNECTION_DISCONNECTED;
    }

    private boolean isStuck(long now) {
        return inside && now - enteredAt > UNRESPONSIVE_NANOS;
    }

    /**
     * For the watchman, who lives while the library is being called and somewhat longer: tells listeners once
     * it has not come back for too long, which the thread itself cannot. Returns how long he may sleep,
     * nanoseconds; -1 when he is no longer needed.
     */
    long watch() {
        synchronized (lock) {
            long now = clock.getAsLong();
            boolean idle = !inside && now - enteredAt > 2 * UNRESPONSIVE_NANOS;
            if (!idle && !isStuck(now)) {
                return inside ? enteredAt + UNRESPONSIVE_NANOS + MS - now : UNRESPONSIVE_NANOS;
            }
            watched = false;
        }
        announce();
        return -1;
    }

    /** The watchman could not be started. */
    void unwatched() {
        synchronized (lock) {
            watched = false;
        }
    }

    // ---- for the thread ----

    /** Does what is to be done next. False when there is nothing before await() returns. */
    boolean step() {
        Runnable job;
        synchronized (lock) {
            marked = false;
            job = nextJob(clock.getAsLong());
        }
        announce();
        if (job != null) {
            job.run();
        }
        return job != null;
    }

    /** Waits until something has changed or the time for the next step has come. */
    void await() throws InterruptedException {
        synchronized (lock) {
            long start = clock.getAsLong();
            for (long left = wakeIn; !marked && left > 0; left = wakeIn - (clock.getAsLong() - start)) {
                lock.wait(left / MS, (int) (left % MS));
            }
        }
    }

    /** How long await() waits if nothing changes, nanoseconds. */
    long wakeIn() {
        synchronized (lock) {
            return marked ? 0 : wakeIn;
        }
    }

    /** How many boosts are remembered, open or not. */
    int tableSize() {
        synchronized (lock) {
            return table.size();
        }
    }

    boolean isUnavailable() {
        synchronized (lock) {
            return phase == Phase.UNAVAILABLE;
        }
    }

    // What is to be done next: with the lock.

    private Runnable nextJob(long now) {
        wakeIn = Long.MAX_VALUE;
        if (phase == Phase.LOADING) {
            return this::load;
        }
        if (phase == Phase.NEW || phase == Phase.UNAVAILABLE) {
            return null;
        }
        table.expire(now, changed::add);
        wakeWith(table.nextEnd(now));
        oneShots.drop(now, !wantEnabled, notSent::add);
        wakeWith(oneShots.nextDrop(now));
        if (debug != wantDebug) {
            return this::switchDebug;
        }
        if (phase == Phase.CONFIGURING) {
            return this::configure;
        }
        if (suspect) {
            suspect = false;
            takeBack = true;
            eventsAsked = false;
        }
        takeBack &= table.cancelDue(true);
        if (!wantEnabled) {
            return enabled ? jobBeforeDisabling() : null;
        }
        return enabled ? jobWhileEnabled(now) : this::enable;
    }

    private void wakeWith(long in) {
        wakeIn = Math.min(wakeIn, in);
    }

    /** What the service holds is taken back before the library is switched off. */
    private Runnable jobBeforeDisabling() {
        if (!connected || noEngine || !table.cancelDue(true)) {
            return this::disable;
        }
        return fresh ? () -> cancel(true) : this::look;
    }

    private Runnable jobWhileEnabled(long now) {
        muted &= now - muteUntil < 0;
        boolean work = connected ? requestDue(now) : wantsConnection(now);
        boolean checkDue = false;
        if (check < CHECKS.length) {
            long in = lastSent + CHECKS[check] - now;
            checkDue = in <= 0;
            wakeWith(in);
        }
        if (lookDue || !fresh && (work && !muted || checkDue)) {
            return this::look;
        }
        fresh = false;
        if (!work) {
            return null;
        }
        long blockedUntil = connected ? muteUntil : attemptAt;
        if (connected ? muted : now - attemptAt < 0) {
            wakeWith(blockedUntil - now);
            return null;
        }
        return connected ? this::request : this::attempt;
    }

    private boolean wantsConnection(long now) {
        return table.wantsAny(now) || eventsWanted && !eventsRefused || !oneShots.isEmpty();
    }

    private boolean requestDue(long now) {
        return table.cancelDue(takeBack) || table.nextToAsk(now) != null || eventsToAsk() || oneShotDue(now)
                || signOfLifeDue(now);
    }

    private boolean oneShotDue(long now) {
        return !oneShots.isEmpty() && now - provenAt < PROOF_LASTS;
    }

    private boolean eventsToAsk() {
        return eventsWanted && !eventsRefused && !eventsAsked;
    }

    /** Only what the service shall still hold by then makes a sign of life worth while, or a one-shot request. */
    private boolean signOfLifeDue(long now) {
        if (!oneShots.isEmpty() && check > 0) {
            return true; // with 0 one is on its way
        }
        long due = lastSent + interval;
        boolean worthWhile = eventsWanted && eventsAsked && !eventsRefused || table.wantsAny(due);
        if (worthWhile && now - due < 0) {
            wakeWith(due - now);
        }
        return worthWhile && now - due >= 0;
    }

    /** The service holds nothing of ours any more. */
    private void forgetConnection() {
        table.forgetConnection(changed::add);
        eventsAsked = false;
        check = CHECKS.length;
    }

    // Doing it: without the lock.

    /** Every call of the library goes through here. */
    private void enter(Runnable call) {
        boolean unwatched;
        synchronized (lock) {
            inside = true;
            enteredAt = clock.getAsLong();
            fresh = false;
            unwatched = !watched;
            watched = true;
        }
        try {
            if (unwatched) {
                startWatch.run();
            }
            call.run();
        } finally {
            synchronized (lock) {
                inside = false;
            }
        }
    }

    private void load() {
        try {
            enter(() -> natives.load(this));
        } catch (Throwable thrown) {
            Throwable cause = thrown.getCause();
            fail(thrown instanceof ExceptionInInitializerError && cause != null ? cause : thrown);
            return;
        }
        synchronized (lock) {
            phase = Phase.CONFIGURING;
        }
    }

    private void switchDebug() {
        boolean on;
        synchronized (lock) {
            on = wantDebug;
            debug = on;
        }
        enter(() -> natives.setDebug(on));
    }

    private void configure() {
        BoosterConfig told;
        synchronized (lock) {
            told = config;
        }
        enter(() -> natives.init(told.serviceName(), told.localName(), told.retryIntervalSeconds()));
        synchronized (lock) {
            phase = Phase.READY;
            config = null;
            attempted();
        }
    }

    /** With the lock. */
    private void attempted() {
        attemptAt = clock.getAsLong() + interval + INTERVAL_MARGIN;
        lookDue = true;
    }

    private void look() {
        boolean[] running = {false};
        enter(() -> running[0] = natives.isRunning());
        synchronized (lock) {
            long now = clock.getAsLong();
            if (connected && !running[0]) {
                forgetConnection();
            }
            if (!connected) {
                provenAt = now; // if it stands now, it is new
            } else if (now - lastSent >= CHECKS[0] && lastSent - provenAt > 0) {
                provenAt = lastSent;
            }
            connected = running[0];
            if (noEngine) {
                muteUntil = now + interval;
            }
            muted = connected && (muted || noEngine);
            noEngine = false;
            lookDue = false;
            fresh = true;
            while (check < CHECKS.length && now - lastSent >= CHECKS[check]) {
                check++;
            }
        }
    }

    private void enable() {
        enter(() -> natives.setEnabled(true));
        synchronized (lock) {
            enabled = true;
            attempted(); // it tries to connect if it must
        }
    }

    private void disable() {
        enter(() -> natives.setEnabled(false));
        synchronized (lock) {
            enabled = false;
            forgetConnection();
        }
    }

    /** Has the library connect: it does so when a request finds no connection. */
    private void attempt() {
        synchronized (lock) {
            ownNotices++;
        }
        send(new Request(BoosterCodes.FUNCTION_CHECK_PERMISSION));
        synchronized (lock) {
            attempted();
        }
    }

    /** Makes the one request that is due first. */
    private void request() {
        Boost boost = null;
        Request oneShot = null;
        boolean everything;
        boolean cancel;
        boolean events;
        synchronized (lock) {
            everything = takeBack;
            cancel = table.cancelDue(everything);
            boost = cancel ? null : table.nextToAsk(clock.getAsLong());
            events = !cancel && boost == null && eventsToAsk();
            if (!cancel && boost == null && !events && oneShotDue(clock.getAsLong())) {
                oneShot = oneShots.take();
            }
        }
        if (cancel) {
            cancel(everything);
        } else if (boost != null) {
            ask(boost);
        } else if (events) {
            registerForEvents();
        } else if (oneShot != null) {
            sendOneShot(oneShot);
        } else {
            synchronized (lock) {
                ownNotices = 0; // what has not come by now was dropped, as while the library was off
            }
            send(new Request(BoosterCodes.FUNCTION_CHECK_PERMISSION));
        }
    }

    private void cancel(boolean everything) {
        BoostTable.Cancel cancel;
        synchronized (lock) {
            cancel = table.nextCancel(everything);
            if (cancel == null) {
                return;
            }
            remember(cancel.request);
        }
        if (send(cancel.request)) {
            synchronized (lock) {
                table.cancelled(cancel, everything);
            }
        }
    }

    private void ask(Boost boost) {
        Request request;
        synchronized (lock) {
            long now = clock.getAsLong();
            if (!boost.isOpen(now)) {
                return;
            }
            request = Request.forBoost(boost.request(), millis(boost.endsAt - now));
            request.stamp = newStamp();
            table.asking(boost, request.stamp);
        }
        boolean taken = false;
        try {
            taken = send(request);
        } finally {
            synchronized (lock) {
                table.asked(boost, taken, clock.getAsLong() + request.timeoutMillis * MS);
                changed.add(boost);
            }
        }
    }

    private void registerForEvents() {
        Request request = new Request(BoosterCodes.FUNCTION_EVENTS);
        synchronized (lock) {
            request.stamp = newStamp();
            eventsStamp = request.stamp;
            eventsAsked = true; // before, since the refusal may come at once
        }
        boolean taken = false;
        try {
            taken = send(request);
        } finally {
            synchronized (lock) {
                eventsAsked &= taken;
            }
        }
    }

    /** Never made again, whatever becomes of it. */
    private void sendOneShot(Request request) {
        synchronized (lock) {
            remember(request);
        }
        boolean taken = false;
        try {
            taken = send(request);
        } finally {
            synchronized (lock) {
                if (!taken) {
                    notSent.add(request.functionId);
                }
            }
        }
    }

    /** With the lock: a refusal of this request will be told. */
    private void remember(Request request) {
        request.stamp = newStamp();
        stamps.remember(request);
    }

    private long newStamp() {
        return stamps.next(clock.getAsLong());
    }

    /** Makes a request. Whether the library has taken it over; if not, it said that there is no connection. */
    private boolean send(Request request) {
        synchronized (lock) {
            if (request.stamp == 0) {
                request.stamp = newStamp();
            }
        }
        int[] result = {0};
        enter(() -> result[0] = natives.send(request));
        // One send time in four thousand million looks the same, and is asked for again.
        boolean taken = result[0] != TarnBoosterJNI.NO_ENGINE;
        synchronized (lock) {
            if (taken) {
                lastSent = clock.getAsLong();
                check = 0;
            } else {
                noEngine = true;
                attempted(); // it may have tried to connect
            }
        }
        return taken;
    }
}
