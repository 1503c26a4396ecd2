plugins {
    id("com.android.application") version "8.5.2" apply false // from 8.5.1 on APKs fit pages of 16 KiB
    id("org.jetbrains.kotlin.android") version "1.9.24" apply false
}
