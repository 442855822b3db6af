package kavra.test;

import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/**
 * Stands in for a Java class that owns a native object: native code calls
 * its static postEventFromNative, which counts the calls and sums their
 * "what" (and throws for THROW). Tests can make callers wait inside the call
 * until a number of them are in it at once; native tests read the counters.
 */
public final class EventRecorder {
    public static final int THROW = -1;

    private static int count;
    private static int whatSum;
    /** Calls that found all parties inside the call at once. */
    private static int met;
    private static CountDownLatch meeting;

    public static void postEventFromNative(Object ref, int what, int arg1, int arg2) throws InterruptedException {
        CountDownLatch latch;
        synchronized (EventRecorder.class) {
            count++;
            whatSum += what;
            latch = meeting;
        }
        if (what == THROW) {
            throw new IllegalStateException("handler failed");
        }
        if (latch != null) {
            latch.countDown();
            if (latch.await(10, TimeUnit.SECONDS)) {
                synchronized (EventRecorder.class) {
                    met++;
                }
            }
        }
    }

    /** Clears the counters; with parties above 0, calls wait for each other. */
    public static synchronized void reset(int parties) {
        count = 0;
        whatSum = 0;
        met = 0;
        meeting = parties > 0 ? new CountDownLatch(parties) : null;
    }
}
