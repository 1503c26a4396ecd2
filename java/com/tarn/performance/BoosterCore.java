package com.tarn.performance;

import java.util.List;
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
 * {@link Link} knows the connection, {@link LibraryWatch} whether the library comes back, {@link News} what
 * listeners have yet to hear.
 *
 * <p>What the library does not tell is found out:
 *
 * <ul>
 *   <li>The first request into a connection that has broken counts as queued, and is lost. So after every
 *       request the connection is looked at again, a few times; when it has ended, the service holds nothing
 *       any more, and all that is still wanted is asked for again.
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
    static final int MAX_NAMES = 256;

    private enum Phase { NEW, LOADING, CONFIGURING, READY, UNAVAILABLE }

    private final LongSupplier clock; // nanoseconds that never step
    private final Listeners listeners = new Listeners();
    private final Object deliveryLock = new Object(); // keeps deliveries in order; taken before `lock`
    private final Object lock = new Object(); // guards all below
    private final LibraryWatch watch;

    // Set by start(), then only read: by the thread and the callback thread, without the lock.
    private Natives natives;
    private int partlyStatus;

    // What is wanted.
    private final BoostTable table = new BoostTable();
    private final OneShots oneShots = new OneShots();
    private final Events events = new Events();
    private boolean wantEnabled = true;
    private boolean wantDebug;

    // What the library was told, and what is known of it.
    private Phase phase = Phase.NEW;
    private BoosterConfig config; // null before the start, and once the library is configured
    private Throwable loadFailure;
    private boolean enabled = true;
    private boolean debug;
    private final Link link = new Link();
    private final Stamps stamps = new Stamps();
    private int ownNotices; // reports of a missing connection that our own attempts have caused, yet to come
    private boolean suspect; // such a report came that they do not explain
    private boolean takeBack; // so everything is being cancelled, to be asked for again

    private boolean marked; // something has changed that the thread has not seen
    private long wakeIn; // nanoseconds until it has something to do if nothing changes
    private final News news = new News();

    BoosterCore(LongSupplier clock) {
        this.clock = clock;
        watch = new LibraryWatch(lock, clock);
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
            partlyStatus = config.partlyStatus();
            watch.setStart(startWatch);
            link.setInterval(config.retryIntervalSeconds() * 1000L * MS);
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
                    news.changed(boost);
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
            events.want(wanted);
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
                news.changed(boost);
            });
            oneShots.drop(clock.getAsLong(), true, news::notSent);
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
                wanted = events.isWanted() && wantEnabled;
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
                boost.status = status;
                boost.partly = status == partlyStatus;
                boost.refused = !boost.partly;
                news.changed(boost);
            }
            report = events.refuse(functionId, stamp) || stamps.remembers(functionId, stamp);
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
            List<Consumer<BoosterListener>> calls;
            synchronized (lock) {
                long now = clock.getAsLong();
                calls = news.take(connectionState(now), now);
            }
            calls.forEach(listeners::deliver);
        }
    }

    private int connectionState(long now) {
        if (phase == Phase.UNAVAILABLE) {
            return BoosterCodes.CONNECTION_UNAVAILABLE;
        }
        if (watch.isStuck(now)) {
            return BoosterCodes.CONNECTION_UNRESPONSIVE;
        }
        if (!wantEnabled) {
            return BoosterCodes.CONNECTION_DISABLED;
        }
        return link.isConnected() ? BoosterCodes.CONNECTION_CONNECTED : BoosterCodes.CONNECTION_DISCONNECTED;
    }

    /** For the watchman: tells listeners when he has seen something. Returns as {@link LibraryWatch#nextRound}. */
    long watch() {
        long nanos = watch.nextRound();
        if (nanos < 0) {
            announce();
        }
        return nanos;
    }

    /** The watchman could not be started. */
    void unwatched() {
        watch.unwatched();
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
        table.expire(now, news::changed);
        wakeWith(table.nextEnd(now));
        oneShots.drop(now, !wantEnabled, news::notSent);
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
            events.forgetConnection();
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
        if (!link.isConnected() || link.isDoubtful() || !table.cancelDue(true)) {
            return this::disable;
        }
        return link.isFresh() ? () -> cancel(true) : this::look;
    }

    private Runnable jobWhileEnabled(long now) {
        boolean work = link.isConnected() ? requestDue(now) : wantsConnection(now);
        wakeWith(link.nextCheck(now));
        if (link.needsLook(work, now)) {
            return this::look;
        }
        link.forgetLook();
        if (!work) {
            return null;
        }
        if (link.blockedFor(now) > 0) {
            wakeWith(link.blockedFor(now));
            return null;
        }
        return link.isConnected() ? this::request : this::attempt;
    }

    private boolean wantsConnection(long now) {
        return table.wantsAny(now) || events.isDue() || !oneShots.isEmpty();
    }

    private boolean requestDue(long now) {
        return table.cancelDue(takeBack) || table.nextToAsk(now) != null || events.toAsk() || oneShotDue(now)
                || signOfLifeDue(now);
    }

    private boolean oneShotDue(long now) {
        return !oneShots.isEmpty() && link.isProven(now);
    }

    /** Only what the service shall still hold by then makes a sign of life worth while, or a one-shot request. */
    private boolean signOfLifeDue(long now) {
        if (!oneShots.isEmpty() && !link.awaitsProof()) {
            return true;
        }
        long due = link.signOfLifeAt();
        boolean worthWhile = events.isHeld() || table.wantsAny(due);
        if (worthWhile && now - due < 0) {
            wakeWith(due - now);
        }
        return worthWhile && now - due >= 0;
    }

    /** The service holds nothing of ours any more. */
    private void forgetConnection() {
        table.forgetConnection(news::changed);
        events.forgetConnection();
    }

    // Doing it: without the lock.

    /** Every call of the library goes through here, once it is loaded. */
    private void enter(Runnable call) {
        synchronized (lock) {
            link.forgetLook();
        }
        watch.enter(call);
    }

    private void load() {
        try {
            natives.load(this); // may take its time, which says nothing about the service
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
            link.attempted(clock.getAsLong());
        }
    }

    private void look() {
        boolean[] running = {false};
        enter(() -> running[0] = natives.isRunning());
        synchronized (lock) {
            if (link.looked(running[0], clock.getAsLong())) {
                forgetConnection();
            }
        }
    }

    private void enable() {
        enter(() -> natives.setEnabled(true));
        synchronized (lock) {
            enabled = true;
            link.attempted(clock.getAsLong()); // it tries to connect if it must
        }
    }

    private void disable() {
        enter(() -> natives.setEnabled(false));
        synchronized (lock) {
            enabled = false;
            link.forgetChecks();
            suspect = table.cancelDue(true); // somebody else was quicker: it is taken back later
            if (!suspect) {
                forgetConnection();
            }
        }
    }

    /** Has the library connect: it does so when a request finds no connection. */
    private void attempt() {
        synchronized (lock) {
            ownNotices++;
        }
        send(new Request(BoosterCodes.FUNCTION_CHECK_PERMISSION));
        synchronized (lock) {
            link.attempted(clock.getAsLong());
        }
    }

    /** Makes the one request that is due first. */
    private void request() {
        Boost boost = null;
        Request oneShot = null;
        boolean everything;
        boolean cancel;
        boolean register;
        synchronized (lock) {
            everything = takeBack;
            cancel = table.cancelDue(everything);
            boost = cancel ? null : table.nextToAsk(clock.getAsLong());
            register = !cancel && boost == null && events.toAsk();
            if (!cancel && boost == null && !register && oneShotDue(clock.getAsLong())) {
                oneShot = oneShots.take();
            }
        }
        if (cancel) {
            cancel(everything);
        } else if (boost != null) {
            ask(boost);
        } else if (register) {
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
        List<Boost> held;
        synchronized (lock) {
            held = table.heldLikeNextCancel(everything); // for this thread alone to change
        }
        if (held.isEmpty()) {
            return;
        }
        BoostTable.Cancel cancel = BoostTable.cancelOf(held);
        synchronized (lock) {
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
                news.changed(boost);
            }
        }
    }

    private void registerForEvents() {
        Request request = new Request(BoosterCodes.FUNCTION_EVENTS);
        synchronized (lock) {
            request.stamp = newStamp();
            events.asking(request.stamp);
        }
        boolean taken = false;
        try {
            taken = send(request);
        } finally {
            synchronized (lock) {
                if (!taken) {
                    events.notTaken();
                }
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
                    news.notSent(request.functionId);
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
            link.sent(taken, clock.getAsLong());
        }
        return taken;
    }
}
