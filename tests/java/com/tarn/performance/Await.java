package com.tarn.performance;

import java.util.function.BooleanSupplier;

/** Waiting for conditions. */
final class Await {
    /** Long enough for an emulated processor on a busy machine: a wait that runs out is a fault. */
    private static final long DEADLINE_NANOS = 60_000_000_000L;

    private Await() {}

    static void until(String what, BooleanSupplier condition) {
        long deadline = System.nanoTime() + DEADLINE_NANOS;
        while (!condition.getAsBoolean()) {
            if (System.nanoTime() > deadline) {
                throw new AssertionError("waited in vain until " + what);
            }
            try {
                Thread.sleep(2);
            } catch (InterruptedException e) {
                throw new AssertionError(e);
            }
        }
    }
}
