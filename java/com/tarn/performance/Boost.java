package com.tarn.performance;

import java.io.Closeable;
import org.jetbrains.annotations.NonBlocking;
import org.jetbrains.annotations.NotNull;

/**
 * A boost that the application wants, from {@link TarnBooster#boost} until it is closed or its time is up.
 *
 * <p>Every method may be called on any thread, and returns at once.
 */
public final class Boost implements Closeable {
    private final BoosterCore core;
    private final BoostRequest request;
    private final int functionId;

    // All below is guarded by the core's lock.
    final long endsAt; // nanoseconds of the core's clock
    boolean rejected; // never was in the table, or was thrown out of it
    boolean over; // closed, or its time is up
    boolean stale = true; // the service needs to be asked (again)
    boolean asked; // the present connection was given a request for this boost, and no cancel since
    boolean everAsked;
    boolean refused;
    boolean partly; // the latest request for it was served in part
    int status;
    long stamp; // of the latest request for it
    long servedUntil; // when the service's time for it is up, if asked
    int announced = BoosterCodes.BOOST_PENDING; // the state that listeners know

    Boost(BoosterCore core, BoostRequest request, long now) {
        this.core = core;
        this.request = request;
        this.functionId = request.functionId();
        this.endsAt = now + request.timeoutMillis() * BoosterCore.MS;
    }

    /** @return what was asked for */
    public @NotNull BoostRequest request() {
        return request;
    }

    /** @return what has become of it */
    @BoosterCodes.BoostState
    @NonBlocking
    public int state() {
        return core.stateOf(this);
    }

    /** @return the service's own status if it has refused or served a part only, otherwise 0 */
    @NonBlocking
    public int status() {
        return core.statusOf(this);
    }

    /** @return milliseconds until its time is up, rounded up; 0 once it is closed or was never accepted */
    @NonBlocking
    public int remainingMillis() {
        return core.remainingMillisOf(this);
    }

    /**
     * Ends the boost. A cancel of the protocol names no boost: the service is told to take back everything of
     * the same kind that shares something with this one (the CPU, I/O, or a thread), and is at once asked
     * again for what is still open of that, for the time it has left. A second call changes nothing.
     */
    @Override
    @NonBlocking
    public void close() {
        core.close(this);
    }

    @Override
    public @NotNull String toString() {
        return request + ": " + BoosterCodes.boostName(state());
    }

    int functionId() {
        return functionId;
    }

    boolean isOpen(long now) {
        return !over && !rejected && now - endsAt < 0;
    }

    int state(long now) {
        if (rejected) {
            return BoosterCodes.BOOST_NOT_SENT;
        }
        if (refused) {
            return BoosterCodes.BOOST_REFUSED;
        }
        if (!isOpen(now)) {
            return everAsked ? BoosterCodes.BOOST_ENDED : BoosterCodes.BOOST_NOT_SENT;
        }
        if (!asked) {
            return BoosterCodes.BOOST_PENDING;
        }
        return partly ? BoosterCodes.BOOST_PARTLY : BoosterCodes.BOOST_SENT;
    }
}
