package com.tarn.performance;

import static com.tarn.performance.TarnBoosterJNI.*;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.lang.invoke.MethodType;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.Arrays;
import java.util.List;
import org.junit.Test;

/**
 * The table of natives, in a virtual machine in which nothing has been initialised. Runs before
 * ConnectionTest.
 */
public class NativeTableTest {
    private record Native(String name, String signature, Object result, Object... arguments) {}

    private static final Object ANY = new Object();

    /** With what each gives without an engine. */
    private static final Native[] TABLE = {
            new Native("native_testtarnbooster", "()I", 11),
            new Native("native_initTarnBooster", "(Ljava/lang/String;ILjava/lang/String;)I", 0, "", 0, ""),
            new Native("native_checkPermission", "(IIIJ)I", -3, 1, 2, 3, 4L),
            new Native("native_requestCpuHighFreq", "(IJIIIJ)I", -3, 1, 2L, 3, 4, 5, 6L),
            new Native("native_cancelCpuHighFreq", "(IJ)I", -3, 1, 2L),
            new Native("native_requestCpuCoreForThread", "(IJ[IIIJ)I", -3, 1, 2L, new int[] {3}, 4, 5, 6L),
            new Native("native_cancelCpuCoreForThread", "([IIJ)I", -3, null, 1, 2L),
            new Native("native_requestHighIOFreq", "(IJIIIJ)I", -3, 1, 2L, 3, 4, 5, 6L),
            new Native("native_cancelHighIOFreq", "(IJ)I", -3, 1, 2L),
            new Native("native_requestScreenResolution", "(ILjava/lang/String;IJ)I", -3, 1, "ui", 2, 3L),
            new Native("native_resetScreenResolution", "(IJ)I", -3, 1, 2L),
            new Native("native_registerANRCallback__IJ", "(IJ)I", -3, 1, 2L),
            new Native("native_registerBootPreloadResource", "([Ljava/lang/String;IJ)I", -3,
                    new String[] {"/a"}, 1, 2L),
            new Native("native_terminateApp", "(IJ)I", -3, 1, 2L),
            new Native("native_requestUnifyCpuIOThreadCore", "(IJII[IIIJ)I", -3, 1, 2L, 3, 4, null, 5, 6, 7L),
            new Native("native_cancelUnifyCpuIOThreadCore", "(ZZZ[IIJ)I", -3, true, false, true, null, 1, 2L),
            new Native("native_setHCEnable", "(Z)V", null, true),
            new Native("native_setRetryConnectInterval", "(I)V", null, 0),
            new Native("native_setDebug", "(Z)V", null, false),
            new Native("native_isRunning", "()I", 0),
            new Native("native_startTraceCpuLoad", "(II)I", 0, 0, 10),
            new Native("native_stopTraceCpuLoad", "(I)I", -1, 0),
            new Native("native_getTickRate", "()I", ANY),
    };

    @Test
    public void everyNativeOfTheTableIsDeclaredAndBoundAndNoOther() throws Exception {
        Reports reports = new Reports();
        setListener(reports);
        int mark = LogFile.mark();
        for (Native row : TABLE) {
            Class<?>[] parameters =
                    MethodType.fromMethodDescriptorString(row.signature, null).parameterArray();
            Method method = TarnBoosterJNI.class.getDeclaredMethod(row.name, parameters);
            assertEquals(
                    row.name, Modifier.PRIVATE | Modifier.STATIC | Modifier.NATIVE, method.getModifiers());
            method.setAccessible(true);
            Object result = method.invoke(null, row.arguments);
            if (row.result != ANY) {
                assertEquals(row.name, row.result, result);
            }
        }
        assertEquals(TABLE.length,
                Arrays.stream(TarnBoosterJNI.class.getDeclaredMethods())
                        .filter(m -> Modifier.isNative(m.getModifiers()))
                        .count());
        assertTrue(getTickRate() > 0);

        // Each of the fourteen requests told that there is no engine, and with debugging off nothing was
        // logged.
        List<Reports.Report> none = reports.await(14, report -> true);
        assertEquals(14, none.size());
        none.forEach(report -> assertEquals(new Reports.Report(1, 0, -20001, 0, 0, ""), report));
        assertEquals(List.of(), LogFile.since(mark));
    }

    @Test
    public void whatTheLibraryDoesNotLookAtIsRefusedBeforeIt() {
        List<Runnable> refused = List.of(()
                                                 -> initTarnBooster(null, 0, "l"),
                ()
                        -> initTarnBooster("r", 0, null),
                ()
                        -> requestScreenResolution(1, null, 2, 3),
                ()
                        -> registerBootPreloadResource(null, 1, 2),
                () -> registerBootPreloadResource(new String[] {"/a", null}, 1, 2));
        List<String> named = List.of("local", "remote", "uiName", "files", "files[1]");
        for (Runnable call : refused) {
            String message = assertThrows(NullPointerException.class, call::run).getMessage();
            assertTrue(message, named.contains(message.split(" ")[0]));
        }
        assertEquals(named.size(), refused.size());
        assertNotEquals(0, testtarnbooster());
    }
}
