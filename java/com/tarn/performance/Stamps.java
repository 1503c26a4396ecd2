package com.tarn.performance;

import java.util.LinkedHashMap;
import java.util.Map;

/** The time stamps of requests, by which refusals find them. Guarded by the core's lock. */
final class Stamps {
    /** Refusals are told for the latest so many requests that were no boosts. */
    private static final int REMEMBERED = 128;

    private final Map<Long, Integer> functionIds = new LinkedHashMap<>(); // oldest first
    private long last;

    /** A stamp that no other request has, and not 0; nanoseconds, for the sake of the service's log. */
    long next(long now) {
        last = Math.max(last + 1, now);
        return last;
    }

    /** Remembers a request that has its stamp. */
    void remember(Request request) {
        if (functionIds.size() == REMEMBERED) {
            functionIds.remove(functionIds.keySet().iterator().next());
        }
        functionIds.put(request.stamp, request.functionId);
    }

    boolean remembers(int functionId, long stamp) {
        Integer remembered = functionIds.get(stamp);
        return remembered != null && remembered == functionId;
    }
}
