package com.tarn.performance;

import static org.junit.Assert.assertTrue;

import java.util.concurrent.locks.LockSupport;
import java.util.function.BooleanSupplier;

/** Waiting for conditions. */
final class Await {
    /** Long enough for an emulated processor on a busy machine: a wait that runs out is a fault. */
    private static final long DEADLINE_NANOS = 60_000_000_000L;

    static void until(Object what, BooleanSupplier condition) {
        long start = System.nanoTime();
        while (!condition.getAsBoolean()) {
            assertTrue("waited in vain: " + what, System.nanoTime() - start < DEADLINE_NANOS);
            LockSupport.parkNanos(2_000_000);
        }
    }
}
