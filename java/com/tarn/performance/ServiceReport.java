package com.tarn.performance;

import org.jetbrains.annotations.NotNull;

/** Something that the service said: a refusal or an event. Immutable. */
public final class ServiceReport {
    private final int functionId;
    private final int status;
    private final int code;
    private final byte[] data;

    /** @param data becomes the report's own */
    ServiceReport(int functionId, int status, int code, byte[] data) {
        this.functionId = functionId;
        this.status = status;
        this.code = code;
        this.data = data;
    }

    /** @return the function identifier of what was refused; of an event {@link BoosterCodes#FUNCTION_EVENTS} */
    @BoosterCodes.FunctionId
    public int functionId() {
        return functionId;
    }

    /** @return the service's own status of a refusal, not 0; 0 of an event */
    public int status() {
        return status;
    }

    /** @return the service's code of an event; 0 of a refusal */
    public int code() {
        return code;
    }

    /** @return the bytes that came with an event, in a new array; empty of a refusal */
    public byte @NotNull[] data() {
        return data.clone();
    }

    @Override
    public @NotNull String toString() {
        return status != 0 ? BoosterCodes.functionName(functionId) + " refused with status " + status
                           : "event " + code + " with " + data.length + " bytes";
    }
}
