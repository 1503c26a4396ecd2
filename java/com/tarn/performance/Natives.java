package com.tarn.performance;

/**
 * The library as the booster sees it. Everything but the callbacks runs on the thread "TarnBooster" alone,
 * and any of it may block for as long as the service likes.
 */
interface Natives {
    /**
     * Loads the library. Called once, before everything else.
     *
     * @param receiver hears the reports from now on, on the library's callback thread
     */
    void load(TarnBoosterListener receiver);

    void setDebug(boolean on);

    /** Configures the library and makes one attempt to connect. */
    void init(String serviceName, String localName, int retryIntervalSeconds);

    void setEnabled(boolean on);

    boolean isRunning();

    /** Queues a request. Its result is the library's, see {@link TarnBoosterJNI}. */
    int send(Request request);
}
