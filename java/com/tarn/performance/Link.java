package com.tarn.performance;

/**
 * What is known of the connection, from what the library answers and from when requests were made: whether it
 * stands, when to look at it again, when to try for one. Guarded by the core's lock; times are nanoseconds of
 * the core's clock.
 */
final class Link {
    /** When it is looked at after a request: a write that fails ends a connection within moments. */
    private static final long[] CHECKS = {10 * BoosterCore.MS, 100 * BoosterCore.MS, 1000 * BoosterCore.MS};
    /** A request that is made once goes over a connection that was found alive no longer ago than this. */
    private static final long PROOF_LASTS = 1000 * BoosterCore.MS;
    /** The library counts its interval on another clock, in whole milliseconds. */
    private static final long INTERVAL_MARGIN = 50 * BoosterCore.MS;

    private long interval;
    private boolean connected;
    private long attemptAt; // no attempt to connect before

    private boolean lookDue; // it has to be looked at before anything else
    private boolean fresh; // nothing was done since the last look
    private long lastSent;
    private int check = CHECKS.length; // the next of CHECKS

    private boolean noEngine; // the latest request was told that there is no connection
    private boolean muted; // requests find none, although it stands: somebody else has switched it off
    private long muteUntil;

    private long provenAt; // it carried something then, as far as can be told
    private boolean unproven; // requests were made since
    private long unprovenSince;

    void setInterval(long nanos) {
        interval = nanos;
    }

    boolean isConnected() {
        return connected;
    }

    boolean isFresh() {
        return fresh;
    }

    /** The library is entered, or time goes by: what the last look has shown may have changed. */
    void forgetLook() {
        fresh = false;
    }

    /** The library may have tried to connect. */
    void attempted(long now) {
        attemptAt = now + interval + INTERVAL_MARGIN;
        lookDue = true;
    }

    /** A request was made. Whether the library has taken it over; if not, it said that there is no connection. */
    void sent(boolean taken, long now) {
        if (!taken) {
            noEngine = true;
            attempted(now);
            return;
        }
        lastSent = now;
        check = 0;
        if (!unproven) {
            unproven = true;
            unprovenSince = now;
        }
    }

    /** What the library says now. Returns whether a connection has ended. */
    boolean looked(boolean running, long now) {
        boolean lost = connected && !running;
        if (lost) {
            forgetChecks();
            provenAt = now - PROOF_LASTS;
            unproven = false;
        } else if (unproven && running) {
            long since = now - lastSent >= CHECKS[0] ? lastSent : unprovenSince;
            if (now - since >= CHECKS[0]) {
                provenAt = since;
                unproven = since != lastSent;
                unprovenSince = lastSent;
            }
        }
        connected = running;
        muted = connected && (isMuted(now) || noEngine);
        if (noEngine) {
            muteUntil = now + interval;
        }
        noEngine = false;
        lookDue = false;
        fresh = true;
        while (check < CHECKS.length && now - lastSent >= CHECKS[check]) {
            check++;
        }
        return lost;
    }

    /** Nothing that was sent matters any more. */
    void forgetChecks() {
        check = CHECKS.length;
    }

    /** Whether the latest request was told that there is no connection, and nobody has looked since. */
    boolean isDoubtful() {
        return noEngine;
    }

    private boolean isMuted(long now) {
        return muted && now - muteUntil < 0;
    }

    /** @param work whether there is something to be made of it */
    boolean needsLook(boolean work, long now) {
        return lookDue || !fresh && (work && !isMuted(now) || nextCheck(now) <= 0);
    }

    /** Nanoseconds until it is to be looked at because of a request; Long.MAX_VALUE for never. */
    long nextCheck(long now) {
        return check < CHECKS.length ? lastSent + CHECKS[check] - now : Long.MAX_VALUE;
    }

    /** Nanoseconds until a request, or without a connection an attempt, may be made; 0 or less for now. */
    long blockedFor(long now) {
        if (connected) {
            return isMuted(now) ? muteUntil - now : 0;
        }
        return attemptAt - now;
    }

    /** Whether a request that must not be lost may be made. */
    boolean isProven(long now) {
        return now - provenAt < PROOF_LASTS;
    }

    /** Whether a request was just made that will show if the connection lives. */
    boolean awaitsProof() {
        return check == 0;
    }

    /** When the service is to be asked for a sign of life. */
    long signOfLifeAt() {
        return lastSent + interval;
    }
}
