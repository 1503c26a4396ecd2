package com.tarn.performance;

/**
 * What an application implements to hear from the performance service. See {@link
 * TarnBoosterJNI#setListener}.
 */
public interface TarnBoosterListener {
    /**
     * One report. Called on the library's single callback thread, one report at a time, in the order in which
     * the reports were queued. While it runs no other report is delivered, so long work belongs on another
     * thread; so does any request (see the warning at {@link TarnBoosterJNI}).
     *
     * <p>An exception thrown here is printed to {@link System#err} and goes no further.
     *
     * @param type {@link TarnBoosterJNI#TYPE_STATUS} or {@link TarnBoosterJNI#TYPE_DATA}
     * @param timestamp for a status report of a request, the time stamp which that request was given, in
     *     nanoseconds; otherwise 0
     * @param status for a status report, the service's non-zero status, or {@link
     *     TarnBoosterJNI#STATUS_NO_ENGINE}; otherwise 0
     * @param funcid the function identifier: 1001 to 1014 for a request's status, 1010 for data, 0 with
     *     {@link TarnBoosterJNI#STATUS_NO_ENGINE}
     * @param code for data, the service's code of what happened; otherwise 0
     * @param data for data, the bytes that came with it (may be none); otherwise empty. Never null, not
     *     kept by the library.
     */
    void onData(int type, long timestamp, int status, int funcid, int code, byte[] data);
}
