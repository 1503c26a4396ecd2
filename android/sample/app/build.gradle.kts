plugins {
    id("com.android.application")
    id("org.jetbrains.kotlin.android")
}

android {
    namespace = "com.tarn.sample"
    compileSdk = 34
    defaultConfig {
        applicationId = "com.tarn.sample"
        minSdk = 24
        targetSdk = 34
        versionCode = 1
        versionName = "1.0"
        // No abiFilters: on processors without the library the booster reports CONNECTION_UNAVAILABLE.
    }
    buildTypes {
        release {
            isMinifyEnabled = true // the package brings its own rules
            proguardFiles(getDefaultProguardFile("proguard-android-optimize.txt"))
        }
    }
    compileOptions {
        sourceCompatibility = JavaVersion.VERSION_1_8
        targetCompatibility = JavaVersion.VERSION_1_8
    }
    kotlinOptions { jvmTarget = "1.8" }
}

dependencies {
    implementation("com.tarn:tarnbooster:1.0.0")
}
