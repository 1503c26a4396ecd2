package com.tarn.performance;

/** The threads behind a core: "TarnBooster", and a watchman while it is at work. */
final class BoosterThread {
    private static final long AFTER_A_FAULT_MS = 1000;

    private BoosterThread() {}

    /** Starts the thread "TarnBooster", which ends with the process or when the library cannot be had. */
    static void start(BoosterCore core) {
        spawn("TarnBooster", () -> serve(core));
    }

    /** Starts a watchman; without one, listeners learn late that the library does not come back. */
    static void startWatch(BoosterCore core) {
        try {
            spawn("TarnBooster watch", () -> watch(core));
        } catch (OutOfMemoryError noThread) {
            core.unwatched();
        }
    }

    private static void spawn(String name, Runnable work) {
        Thread thread = new Thread(work, name);
        thread.setDaemon(true);
        thread.start();
    }

    private static void serve(BoosterCore core) {
        while (!core.isUnavailable()) {
            try {
                if (!core.step()) {
                    core.await();
                }
            } catch (InterruptedException ignored) {
                // Nobody has a reason to interrupt this thread.
            } catch (Throwable thrown) {
                // A lack of memory, which may pass. The thread goes on, since nobody else does its work.
                printQuietly(thrown);
                pause(AFTER_A_FAULT_MS);
            }
        }
        core.announce();
    }

    private static void watch(BoosterCore core) {
        for (long nanos = core.watch(); nanos >= 0; nanos = core.watch()) {
            pause(nanos / BoosterCore.MS + 1);
        }
    }

    private static void printQuietly(Throwable thrown) {
        try {
            thrown.printStackTrace();
        } catch (Throwable alsoThrown) {
            // There is no one to tell.
        }
    }

    private static void pause(long millis) {
        try {
            Thread.sleep(millis);
        } catch (InterruptedException ignored) {
            // Nobody has a reason to interrupt these threads.
        }
    }
}
