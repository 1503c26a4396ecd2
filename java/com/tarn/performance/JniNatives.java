package com.tarn.performance;

import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;

/** The library itself. */
final class JniNatives implements Natives {
    private LibraryLoader loader;
    private int ownTid;

    /** @param loader null for System.loadLibrary */
    JniNatives(LibraryLoader loader) {
        this.loader = loader;
    }

    @Override
    public void load(TarnBoosterListener receiver) {
        NativeLibrary.useLoader(loader);
        loader = null;
        TarnBoosterJNI.testtarnbooster(); // the first use of the class loads the library
        NativeLibrary.useLoader(null); // if that was somebody else's
        TarnBoosterJNI.setReceiver(receiver);
        ownTid = currentThreadId();
    }

    @Override
    public void setDebug(boolean on) {
        TarnBoosterJNI.setDebug(on);
    }

    @Override
    public void init(String serviceName, String localName, int retryIntervalSeconds) {
        TarnBoosterJNI.setRetryConnectInterval(retryIntervalSeconds);
        TarnBoosterJNI.initTarnBooster(serviceName, 0, localName);
    }

    @Override
    public void setEnabled(boolean on) {
        TarnBoosterJNI.setHCEnable(on);
    }

    @Override
    public boolean isRunning() {
        return TarnBoosterJNI.isRunning() != 0;
    }

    @Override
    public int send(Request r) {
        int tid = r.tid != 0 ? r.tid : ownTid;
        switch (r.functionId) {
            case BoosterCodes.FUNCTION_CHECK_PERMISSION:
                return TarnBoosterJNI.checkPermission(0, 0, tid, r.stamp); // both are only logged
            case BoosterCodes.FUNCTION_REQUEST_CPU:
                return TarnBoosterJNI.requestCpuHighFreq(
                        r.scene, r.action, r.cpuLevel, r.timeoutMillis, tid, r.stamp);
            case BoosterCodes.FUNCTION_CANCEL_CPU:
                return TarnBoosterJNI.cancelCpuHighFreq(tid, r.stamp);
            case BoosterCodes.FUNCTION_REQUEST_THREADS:
                return TarnBoosterJNI.requestCpuCoreForThread(
                        r.scene, r.action, r.threads, r.timeoutMillis, tid, r.stamp);
            case BoosterCodes.FUNCTION_CANCEL_THREADS:
                return TarnBoosterJNI.cancelCpuCoreForThread(r.threads, tid, r.stamp);
            case BoosterCodes.FUNCTION_REQUEST_IO:
                return TarnBoosterJNI.requestHighIOFreq(
                        r.scene, r.action, r.ioLevel, r.timeoutMillis, tid, r.stamp);
            case BoosterCodes.FUNCTION_CANCEL_IO:
                return TarnBoosterJNI.cancelHighIOFreq(tid, r.stamp);
            case BoosterCodes.FUNCTION_REQUEST_SCREEN_RESOLUTION:
                return TarnBoosterJNI.requestScreenResolution(r.cpuLevel, r.names[0], tid, r.stamp);
            case BoosterCodes.FUNCTION_RESET_SCREEN_RESOLUTION:
                return TarnBoosterJNI.resetScreenResolution(tid, r.stamp);
            case BoosterCodes.FUNCTION_EVENTS:
                return TarnBoosterJNI.registerANRCallback(tid, r.stamp);
            case BoosterCodes.FUNCTION_PRELOAD:
                return TarnBoosterJNI.registerBootPreloadResource(r.names, tid, r.stamp);
            case BoosterCodes.FUNCTION_TERMINATE_APP:
                return TarnBoosterJNI.terminateApp(tid, r.stamp);
            case BoosterCodes.FUNCTION_REQUEST_UNIFIED:
                return TarnBoosterJNI.requestUnifyCpuIOThreadCore(
                        r.scene, r.action, r.cpuLevel, r.ioLevel, r.threads, r.timeoutMillis, tid, r.stamp);
            case BoosterCodes.FUNCTION_CANCEL_UNIFIED:
                return TarnBoosterJNI.cancelUnifyCpuIOThreadCore(
                        r.cancelCpu, r.cancelIo, r.threads.length != 0, r.threads, tid, r.stamp);
            default:
                throw new IllegalArgumentException("no function " + r.functionId);
        }
    }

    /** The kernel's id of the calling thread; 0 where the kernel does not tell (before Linux 3.17). */
    static int currentThreadId() {
        // Not the name that the link leads to: old virtual machines keep such names for all threads for a while.
        try (InputStream stat = new FileInputStream("/proc/thread-self/stat")) {
            int id = 0;
            for (int c = stat.read(); c >= '0' && c <= '9'; c = stat.read()) {
                id = id * 10 + c - '0';
            }
            return id;
        } catch (IOException | RuntimeException unknown) {
            return 0;
        }
    }
}
