package com.tarn.performance;

import java.util.Arrays;
import org.jetbrains.annotations.NotNull;

/**
 * What an application asks the service for, and for how long. Immutable, and may be used again and again.
 *
 * <pre>{@code
 * BoostRequest scrolling = BoostRequest.lasting(2000).cpuLevel(2).threads(renderTid).build();
 * }</pre>
 *
 * <p>Scenes, actions and levels are codes of the service. A request that asks for one thing (the CPU
 * frequency, the I/O frequency, or cores for threads) goes out as the request for that thing; one that asks
 * for several goes out as the unified request.
 */
public final class BoostRequest {
    /** Longest duration, milliseconds: ten minutes. */
    public static final int MAX_TIMEOUT_MILLIS = 600_000;
    /** Most threads in one request. */
    public static final int MAX_THREADS = 64;

    // The parts that are no threads, in parts().
    static final int CPU = -1;
    static final int IO = -2;

    private final int timeoutMillis;
    private final int scene;
    private final long action;
    private final int cpuLevel;
    private final int ioLevel;
    private final int[] threads;
    private final int callingThread;

    private BoostRequest(Builder builder) {
        timeoutMillis = builder.timeoutMillis;
        scene = builder.scene;
        action = builder.action;
        cpuLevel = builder.cpuLevel;
        ioLevel = builder.ioLevel;
        threads = builder.threads;
        callingThread = builder.callingThread;
    }

    /**
     * Begins a request. Nothing lasts for ever: a boost that is not closed ends when its time is up.
     *
     * @param timeoutMillis how long at most, milliseconds, 1 to {@value #MAX_TIMEOUT_MILLIS}; it counts from
     *     {@link TarnBooster#boost} on
     * @return a builder
     * @throws IllegalArgumentException if the time is not in that range
     */
    public static @NotNull Builder lasting(int timeoutMillis) {
        if (timeoutMillis < 1 || timeoutMillis > MAX_TIMEOUT_MILLIS) {
            throw new IllegalArgumentException(
                    "a boost lasts 1 to " + MAX_TIMEOUT_MILLIS + " ms, not " + timeoutMillis);
        }
        return new Builder(timeoutMillis);
    }

    /** @return how long at most, milliseconds */
    public int timeoutMillis() {
        return timeoutMillis;
    }

    /** @return the service's code of the situation */
    public int scene() {
        return scene;
    }

    /** @return the service's code of the action */
    public long action() {
        return action;
    }

    /** @return the service's code of the CPU level; 0 if no CPU frequency is asked for */
    public int cpuLevel() {
        return cpuLevel;
    }

    /** @return the service's code of the I/O level; 0 if no I/O frequency is asked for */
    public int ioLevel() {
        return ioLevel;
    }

    /** @return kernel ids of the threads that cores are asked for, in a new array; empty if for none */
    public int @NotNull[] threads() {
        return threads.clone();
    }

    /** @return kernel id of the thread that the service is told to ask; 0 for the thread "TarnBooster" */
    public int callingThread() {
        return callingThread;
    }

    /** @return the function identifier under which the request goes out */
    @BoosterCodes.FunctionId
    public int functionId() {
        boolean cpu = cpuLevel != 0;
        boolean io = ioLevel != 0;
        boolean cores = threads.length != 0;
        if (cpu && !io && !cores) {
            return BoosterCodes.FUNCTION_REQUEST_CPU;
        }
        if (io && !cpu && !cores) {
            return BoosterCodes.FUNCTION_REQUEST_IO;
        }
        return cores && !cpu && !io ? BoosterCodes.FUNCTION_REQUEST_THREADS
                                    : BoosterCodes.FUNCTION_REQUEST_UNIFIED;
    }

    /** What a cancel takes back from this request: {@link #CPU}, {@link #IO}, and the ids of threads. */
    int[] parts() {
        int[] parts = Arrays.copyOf(threads, threads.length + 2);
        int count = threads.length;
        if (cpuLevel != 0) {
            parts[count++] = CPU;
        }
        if (ioLevel != 0) {
            parts[count++] = IO;
        }
        return Arrays.copyOf(parts, count);
    }

    @Override
    public @NotNull String toString() {
        StringBuilder text = new StringBuilder(BoosterCodes.functionName(functionId()));
        if (cpuLevel != 0) {
            text.append(", CPU level ").append(cpuLevel);
        }
        if (ioLevel != 0) {
            text.append(", I/O level ").append(ioLevel);
        }
        if (threads.length != 0) {
            text.append(", threads ").append(Arrays.toString(threads));
        }
        return text.append(", ").append(timeoutMillis).append(" ms").toString();
    }

    /** Makes a {@link BoostRequest}. Not for several threads at once. */
    public static final class Builder {
        private static final int[] NONE = {};

        private final int timeoutMillis;
        private int scene;
        private long action;
        private int cpuLevel;
        private int ioLevel;
        private int[] threads = NONE;
        private int callingThread;

        private Builder(int timeoutMillis) {
            this.timeoutMillis = timeoutMillis;
        }

        /**
         * Tells the situation.
         *
         * @param scene the service's code; 0 unless told otherwise
         * @return this
         */
        public @NotNull Builder scene(int scene) {
            this.scene = scene;
            return this;
        }

        /**
         * Tells the action.
         *
         * @param action the service's code; 0 unless told otherwise
         * @return this
         */
        public @NotNull Builder action(long action) {
            this.action = action;
            return this;
        }

        /**
         * Asks for a high CPU frequency.
         *
         * @param level the service's code, 1 and above
         * @return this
         * @throws IllegalArgumentException if it is less
         */
        public @NotNull Builder cpuLevel(int level) {
            cpuLevel = positive(level, "CPU level");
            return this;
        }

        /**
         * Asks for a high I/O frequency.
         *
         * @param level the service's code, 1 and above
         * @return this
         * @throws IllegalArgumentException if it is less
         */
        public @NotNull Builder ioLevel(int level) {
            ioLevel = positive(level, "I/O level");
            return this;
        }

        /**
         * Asks for cores for threads.
         *
         * @param tids kernel ids of threads of this process (on Android {@code Process.myTid()}, elsewhere
         *     {@link TarnBooster#currentThreadId}), 1 to {@value BoostRequest#MAX_THREADS} of them; copied
         * @return this
         * @throws IllegalArgumentException if there are none, or too many, or one is not positive
         */
        public @NotNull Builder threads(int @NotNull... tids) {
            int[] copy = tids.clone();
            if (copy.length < 1 || copy.length > MAX_THREADS) {
                throw new IllegalArgumentException(
                        "a boost is for 1 to " + MAX_THREADS + " threads, not " + copy.length);
            }
            for (int tid : copy) {
                positive(tid, "thread id");
            }
            threads = copy;
            return this;
        }

        /**
         * Tells the service which thread asks; services may log it.
         *
         * @param tid kernel id of a thread of this process; unless told otherwise that of "TarnBooster"
         * @return this
         * @throws IllegalArgumentException if it is not positive
         */
        public @NotNull Builder callingThread(int tid) {
            callingThread = positive(tid, "thread id");
            return this;
        }

        /**
         * Ends the builder's work.
         *
         * @return the request
         * @throws IllegalStateException if nothing is asked for
         */
        public @NotNull BoostRequest build() {
            if (cpuLevel == 0 && ioLevel == 0 && threads.length == 0) {
                throw new IllegalStateException("ask for a CPU level, an I/O level or threads");
            }
            return new BoostRequest(this);
        }

        private static int positive(int value, String what) {
            if (value < 1) {
                throw new IllegalArgumentException(what + " " + value + " is not positive");
            }
            return value;
        }
    }
}
