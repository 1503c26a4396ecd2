package com.tarn.performance;

import java.util.function.LongSupplier;

/**
 * Knows since when the library has been entered, for a watchman: a thread that lives while the library is
 * being called and somewhat longer, and notices when it does not come back, which the caller cannot.
 */
final class LibraryWatch {
    /** A native that was entered longer ago makes the booster unresponsive. */
    static final long UNRESPONSIVE_NANOS = 1000 * BoosterCore.MS;

    private final Object lock; // the core's, guards all below
    private final LongSupplier clock;
    private Runnable startWatchman;
    private boolean inside;
    private long enteredAt;
    private boolean watched; // a watchman lives

    LibraryWatch(Object lock, LongSupplier clock) {
        this.lock = lock;
        this.clock = clock;
    }

    void setStart(Runnable startWatchman) {
        this.startWatchman = startWatchman;
    }

    /** Makes a call of the library. Without the lock. */
    void enter(Runnable call) {
        boolean unwatched;
        synchronized (lock) {
            inside = true;
            enteredAt = clock.getAsLong();
            unwatched = !watched;
            watched = true;
        }
        try {
            if (unwatched) {
                startWatchman.run();
            }
            call.run();
        } finally {
            synchronized (lock) {
                inside = false;
            }
        }
    }

    /** With the lock. */
    boolean isStuck(long now) {
        return inside && now - enteredAt > UNRESPONSIVE_NANOS;
    }

    /** How long the watchman may sleep, nanoseconds; -1 when he has seen enough, or is no longer needed. */
    long nextRound() {
        synchronized (lock) {
            long now = clock.getAsLong();
            boolean idle = !inside && now - enteredAt > 2 * UNRESPONSIVE_NANOS;
            if (!idle && !isStuck(now)) {
                return inside ? enteredAt + UNRESPONSIVE_NANOS + BoosterCore.MS - now : UNRESPONSIVE_NANOS;
            }
            watched = false;
            return -1;
        }
    }

    /** The watchman could not be started. */
    void unwatched() {
        synchronized (lock) {
            watched = false;
        }
    }
}
