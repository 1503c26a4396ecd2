package com.tarn.performance;

import java.util.ArrayDeque;
import java.util.List;
import java.util.Queue;
import java.util.function.Consumer;

/** The requests that are made once and wait for a connection. Guarded by the core's lock. */
final class OneShots {
    static final int MAX_WAITING = 32;
    static final int MAX_WAITING_CHARS = 1 << 20;
    /** How long one waits: what comes much too late does harm. */
    static final long PATIENCE = 5000 * BoosterCore.MS;

    private static final class Waiting {
        final Request request;
        final long dropAt;

        Waiting(Request request, long dropAt) {
            this.request = request;
            this.dropAt = dropAt;
        }
    }

    private final Queue<Waiting> queue = new ArrayDeque<>();
    private int chars; // in the queue

    /** Takes all of these, or none: then there is no room. */
    boolean add(List<Request> requests, long now) {
        int more = 0;
        for (Request request : requests) {
            more += request.chars();
        }
        if (queue.size() + requests.size() > MAX_WAITING || chars + more > MAX_WAITING_CHARS) {
            return false;
        }
        chars += more;
        for (Request request : requests) {
            queue.add(new Waiting(request, now + PATIENCE));
        }
        return true;
    }

    /** Drops those that have waited too long, or all. */
    void drop(long now, boolean all, Consumer<Integer> functionIds) {
        while (!queue.isEmpty() && (all || now - queue.peek().dropAt >= 0)) {
            functionIds.accept(take().functionId);
        }
    }

    /** The first; there is one. */
    Request take() {
        Request request = queue.remove().request;
        chars -= request.chars();
        return request;
    }

    boolean isEmpty() {
        return queue.isEmpty();
    }

    /** Nanoseconds from `now` until the next is to be dropped; Long.MAX_VALUE without any. */
    long nextDrop(long now) {
        return queue.isEmpty() ? Long.MAX_VALUE : queue.peek().dropAt - now;
    }
}
