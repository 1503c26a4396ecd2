package com.tarn.performance;

import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.function.Predicate;

/** A listener that writes down what it hears, and on which thread. */
final class Reports implements TarnBoosterListener {
    /** One call of onData; the data as text of one char per byte. */
    record Report(int type, long timestamp, int status, int funcid, int code, String data) {}

    private static final List<Thread> threads = new CopyOnWriteArrayList<>();

    private final List<Report> all = new CopyOnWriteArrayList<>();

    @Override
    public void onData(int type, long timestamp, int status, int funcid, int code, byte[] data) {
        if (!threads.contains(Thread.currentThread())) {
            threads.add(Thread.currentThread());
        }
        all.add(new Report(type, timestamp, status, funcid, code,
                new String(data, java.nio.charset.StandardCharsets.ISO_8859_1)));
    }

    /** The threads that any listener of this class was called on. */
    static List<Thread> threads() {
        return threads;
    }

    /** The reports of one kind in the order in which they came, once there are `count` of them. */
    List<Report> await(int count, Predicate<Report> kind) {
        Await.until(count + " reports; there are " + all, () -> all.stream().filter(kind).count() >= count);
        return all.stream().filter(kind).toList();
    }
}
