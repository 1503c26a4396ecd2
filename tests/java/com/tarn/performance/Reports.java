package com.tarn.performance;

import java.nio.charset.StandardCharsets;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.function.Predicate;

/** A listener that writes down what it hears. */
final class Reports implements TarnBoosterListener {
    /** One call of onData. */
    record Report(int type, long timestamp, int status, int funcid, int code, String data) {}

    static final Report NO_ENGINE = new Report(1, 0, -20001, 0, 0, "");
    /** The threads that any listener of this class was called on. */
    static final Set<Thread> THREADS = ConcurrentHashMap.newKeySet();

    private final List<Report> all = new CopyOnWriteArrayList<>();

    @Override
    public void onData(int type, long timestamp, int status, int funcid, int code, byte[] data) {
        THREADS.add(Thread.currentThread());
        all.add(new Report(
                type, timestamp, status, funcid, code, new String(data, StandardCharsets.ISO_8859_1)));
    }

    /** The reports of one kind in the order in which they came, once there are `count` of them. */
    List<Report> await(int count, Predicate<Report> kind) {
        Await.until(all, () -> all.stream().filter(kind).count() >= count);
        return all.stream().filter(kind).toList();
    }

    int count() {
        return all.size();
    }
}
