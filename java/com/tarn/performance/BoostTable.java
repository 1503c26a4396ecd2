package com.tarn.performance;

import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Queue;
import java.util.Set;
import java.util.function.Consumer;

/**
 * The open boosts, and those that ended and are still to be cancelled. Guarded by the core's lock.
 *
 * <p>A cancel does not name a boost: it takes back parts (CPU, I/O, threads) of everything that was asked by
 * requests of the same kind. So whatever shares a part with a boost that ends is taken back wholly in the
 * same cancel, and what is still open of it is asked for again: the service never holds anything twice.
 *
 * <p>Its size is bounded. At most {@link #MAX_OPEN} boosts are open; only open ones are ever asked for, and
 * nothing is asked for before all cancels that are due are done, so at most as many wait for a cancel.
 */
final class BoostTable {
    static final int MAX_OPEN = 256;
    /** A boost whose request waited in the library lasts longer at the service; above this it is cancelled. */
    static final long TOLERATED_OVERTIME = 250 * BoosterCore.MS;

    /** A cancel that is due: the request, and the boosts that it takes back. */
    static final class Cancel {
        final Request request;
        private final Set<Boost> taken;

        private Cancel(Request request, Set<Boost> taken) {
            this.request = request;
            this.taken = taken;
        }
    }

    private final List<Boost> boosts = new ArrayList<>(); // in the order in which they were wanted
    private Boost inFlight; // its request is being made

    /** Takes a boost in; false when there is no room. */
    boolean add(Boost boost, long now) {
        int open = 0;
        for (Boost other : boosts) {
            open += other.isOpen(now) ? 1 : 0;
        }
        if (open >= MAX_OPEN) {
            return false;
        }
        if (boosts.size() >= MAX_OPEN) {
            // While the thread is held up nobody else throws these out.
            boosts.removeIf(other -> !other.isOpen(now) && !other.asked && other != inFlight);
        }
        boosts.add(boost);
        return true;
    }

    /** Ends a boost. False if it had ended already. */
    boolean close(Boost boost, long now) {
        if (!boost.isOpen(now)) {
            return false;
        }
        end(boost);
        return true;
    }

    /** Ends the boosts whose time is up. */
    void expire(long now, Consumer<Boost> onEnd) {
        for (Boost boost : new ArrayList<>(boosts)) {
            if (!boost.over && !boost.isOpen(now)) {
                if (boost.servedUntil - boost.endsAt <= TOLERATED_OVERTIME) {
                    boost.asked = false; // the service ends it by itself
                }
                end(boost);
                onEnd.accept(boost);
            }
        }
    }

    private void end(Boost boost) {
        boost.over = true;
        if (!boost.asked && boost != inFlight) {
            boosts.remove(boost);
        }
    }

    /** The first boost that the service needs to be asked for, or null. */
    Boost nextToAsk(long now) {
        for (Boost boost : boosts) {
            if (boost.stale && !boost.refused && boost.isOpen(now)) {
                return boost;
            }
        }
        return null;
    }

    /** Call before and after the request for a boost. */
    void asking(Boost boost, long stamp) {
        boost.stamp = stamp;
        boost.partly = false;
        boost.status = 0;
        inFlight = boost;
    }

    /**
     * @param handedOver whether the library took the request
     * @param servedUntil when the time that the request named will be up
     */
    void asked(Boost boost, boolean handedOver, long servedUntil) {
        inFlight = null;
        if (handedOver) {
            boost.asked = true;
            boost.everAsked = true;
            boost.stale = false;
            boost.servedUntil = servedUntil;
        } else if (boost.over && !boost.asked) {
            boosts.remove(boost);
        }
    }

    /** @param everything whether open boosts are to be taken back, too */
    boolean cancelDue(boolean everything) {
        return firstToCancel(everything) != null;
    }

    /** What the service holds by requests of one kind: first what is to be cancelled next. Empty if nothing is. */
    List<Boost> heldLikeNextCancel(boolean everything) {
        List<Boost> held = new ArrayList<>();
        Boost first = firstToCancel(everything);
        if (first != null) {
            held.add(first);
            for (Boost boost : boosts) {
                if (boost != first && boost.asked && boost.functionId() == first.functionId()) {
                    held.add(boost);
                }
            }
        }
        return held;
    }

    private Boost firstToCancel(boolean everything) {
        for (Boost boost : boosts) {
            if (boost.asked && (boost.over || everything)) {
                return boost;
            }
        }
        return null;
    }

    /**
     * The cancel that takes back the first of `held` and all of it that shares a part with what is taken back.
     * Without the lock, since that may be many threads of many boosts.
     */
    static Cancel cancelOf(List<Boost> held) {
        Map<Integer, List<Boost>> holders = new HashMap<>(); // of each part
        for (Boost boost : held) {
            for (int part : boost.request().parts()) {
                holders.computeIfAbsent(part, ignored -> new ArrayList<>()).add(boost);
            }
        }
        Set<Integer> parts = new HashSet<>();
        Set<Boost> taken = new HashSet<>();
        Queue<Boost> toTake = new ArrayDeque<>(held.subList(0, 1));
        while (!toTake.isEmpty()) {
            Boost boost = toTake.remove();
            if (taken.add(boost)) {
                for (int part : boost.request().parts()) {
                    if (parts.add(part)) {
                        toTake.addAll(holders.get(part));
                    }
                }
            }
        }
        return new Cancel(Request.cancel(held.get(0).functionId(), parts), taken);
    }

    /**
     * The library has taken a cancel over.
     *
     * @param everything as it was for {@link #heldLikeNextCancel}
     */
    void cancelled(Cancel cancel, boolean everything) {
        for (Boost boost : cancel.taken) {
            boost.stale = true;
            if (boost.over || boost.refused || everything) {
                boost.asked = false;
            }
        }
        boosts.removeIf(boost -> boost.over && !boost.asked);
    }

    /** The connection is gone, and with it all that the service held. */
    void forgetConnection(Consumer<Boost> onLoss) {
        for (Boost boost : boosts) {
            boost.asked = false;
            boost.stale = true;
            onLoss.accept(boost);
        }
        boosts.removeIf(boost -> boost.over);
    }

    /**
     * The boost whose latest request was this, or null.
     *
     * @param stamp not 0, which means no request
     */
    Boost find(int functionId, long stamp) {
        for (Boost boost : boosts) {
            if (boost.stamp == stamp && boost.functionId() == functionId) {
                return boost;
            }
        }
        return null;
    }

    /** Whether any boost is open at a time that the service has not refused. */
    boolean wantsAny(long time) {
        for (Boost boost : boosts) {
            if (!boost.refused && boost.isOpen(time)) {
                return true;
            }
        }
        return false;
    }

    /** Nanoseconds from `now` until the next boost ends; Long.MAX_VALUE without any. */
    long nextEnd(long now) {
        long next = Long.MAX_VALUE;
        for (Boost boost : boosts) {
            if (!boost.over) {
                next = Math.min(next, boost.endsAt - now);
            }
        }
        return next;
    }

    int size() {
        return boosts.size();
    }

    /** Throws every boost out. */
    void clear(Consumer<Boost> onThrownOut) {
        boosts.forEach(onThrownOut);
        boosts.clear();
    }
}
