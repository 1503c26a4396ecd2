package com.tarn.performance;

import java.util.Collection;

/** One request as it goes to the library. Fields that a function does not have are left alone. */
final class Request {
    private static final int[] NO_THREADS = {};

    final int functionId;
    long stamp; // set right before it is sent
    int tid; // the calling thread's kernel id, 0 for that of "TarnBooster"

    int scene;
    long action;
    int cpuLevel; // a screen resolution's level, too
    int ioLevel;
    int timeoutMillis;
    boolean cancelCpu;
    boolean cancelIo;
    int[] threads = NO_THREADS;
    String[] names; // files to preload, or one user interface

    /** A request that carries nothing. */
    Request(int functionId) {
        this.functionId = functionId;
    }

    /** The request for a boost with `timeoutMillis` left. */
    static Request forBoost(BoostRequest boost, int timeoutMillis) {
        Request request = new Request(boost.functionId());
        request.tid = boost.callingThread();
        request.scene = boost.scene();
        request.action = boost.action();
        request.cpuLevel = boost.cpuLevel();
        request.ioLevel = boost.ioLevel();
        request.timeoutMillis = timeoutMillis;
        request.threads = boost.threads();
        return request;
    }

    /**
     * The request that takes back `parts` of what was asked by requests of the kind `boostFunctionId`.
     *
     * @param parts at least one; see {@link BoostRequest#parts}
     */
    static Request cancel(int boostFunctionId, Collection<Integer> parts) {
        Request request = new Request(boostFunctionId + 1);
        request.cancelCpu = parts.contains(BoostRequest.CPU);
        request.cancelIo = parts.contains(BoostRequest.IO);
        request.threads = parts.stream().mapToInt(part -> part).filter(part -> part > 0).toArray();
        return request;
    }

    static Request screenResolution(int level, String uiName) {
        Request request = new Request(BoosterCodes.FUNCTION_REQUEST_SCREEN_RESOLUTION);
        request.cpuLevel = level;
        request.names = new String[] {uiName};
        return request;
    }

    static Request preload(String[] files) {
        Request request = new Request(BoosterCodes.FUNCTION_PRELOAD);
        request.names = files;
        return request;
    }

    /** Characters that it holds while it waits. */
    int chars() {
        int chars = 0;
        if (names != null) {
            for (String name : names) {
                chars += name.length();
            }
        }
        return chars;
    }
}
