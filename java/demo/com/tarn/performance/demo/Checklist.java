package com.tarn.performance.demo;

import java.util.ArrayList;
import java.util.List;
import java.util.function.BooleanSupplier;

/** What the demo wants to see, and whether it did. */
final class Checklist {
    /** Long enough for an emulated processor on a busy machine. */
    private static final long PATIENCE_NANOS = 20_000_000_000L;

    private final List<String> seen = new ArrayList<>();
    private final List<String> missed = new ArrayList<>();

    /** Notes one thing. */
    boolean note(String what, boolean happened) {
        (happened ? seen : missed).add(what);
        return happened;
    }

    /** Waits for one thing to happen, not for ever, and notes it. */
    boolean await(String what, BooleanSupplier condition) throws InterruptedException {
        long deadline = System.nanoTime() + PATIENCE_NANOS;
        boolean happened = condition.getAsBoolean();
        while (!happened && System.nanoTime() < deadline) {
            Thread.sleep(10);
            happened = condition.getAsBoolean();
        }
        return note(what, happened);
    }

    /** Prints the list and tells whether nothing is missing. */
    boolean summary() {
        seen.forEach(what -> System.out.println("  seen    " + what));
        missed.forEach(what -> System.out.println("  MISSED  " + what));
        return missed.isEmpty();
    }
}
