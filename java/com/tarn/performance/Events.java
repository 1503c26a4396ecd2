package com.tarn.performance;

/** The registration for the service's events. Guarded by the core's lock. */
final class Events {
    private boolean wanted;
    private boolean asked; // on the present connection
    private boolean refused;
    private long stamp; // of the latest request

    void want(boolean wanted) {
        this.wanted = wanted;
        refused = false;
    }

    boolean isWanted() {
        return wanted;
    }

    /** Whether the service is to have the registration. */
    boolean isDue() {
        return wanted && !refused;
    }

    /** Whether the service has it, as far as is known. */
    boolean isHeld() {
        return isDue() && asked;
    }

    boolean toAsk() {
        return isDue() && !asked;
    }

    /** Before the request, since the refusal may come at once. */
    void asking(long stamp) {
        this.stamp = stamp;
        asked = true;
    }

    void notTaken() {
        asked = false;
    }

    /** The service does not have it any more, or that is not known. */
    void forgetConnection() {
        asked = false;
    }

    /** Whether this refusal is the registration's. */
    boolean refuse(int functionId, long refusedStamp) {
        if (functionId != BoosterCodes.FUNCTION_EVENTS || refusedStamp != stamp || !asked) {
            return false;
        }
        refused = true;
        asked = false;
        return true;
    }
}
