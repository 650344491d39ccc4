// The page in German: what a maker puts beside words.js for another language.

const version = (pack) => (pack?.version ? `Version ${pack.version}` : "die neue Version");

export const words = {
  language: "de",

  product: "Codec-Paket",
  loading: "Das Gerät wird gefragt …",
  codecs: "Codecs",
  stages: "Schritte der Aktualisierung",
  said: "Was gemeldet wurde",
  more: "Mehr",
  token: "Schlüssel der Seite",
  tokenHelp: "„packctl web“ zeigt ihn an. Dieses Fenster behält ihn, bis Sie es schließen.",
  history: "Verlauf",
  noHistory: "Noch ist nichts geschehen.",
  diagnosis: "Diagnose",

  states: {
    absent: "Nicht installiert",
    current: "Aktuell",
    offered: "Neue Version",
    downloading: "Wird geladen",
    installing: "Wird installiert",
    failed: "Fehlgeschlagen",
    cancelled: "Abgebrochen",
    interrupted: "Unterbrochen",
    offline: "Nicht erreichbar",
  },

  absent: "Kein Codec-Paket ist installiert.",
  current: "Das Codec-Paket ist aktuell.",
  installed: "Ein Codec-Paket ist installiert.",
  offered: (offer) => `Ein neues Codec-Paket ist verfügbar: ${version(offer)}.`,
  downloaded: (offer) => `Ein neues Codec-Paket liegt bereit: ${version(offer)}.`,
  downloading: (offer) => `${version(offer)} wird geladen …`,
  installing: (offer) => `${version(offer)} wird installiert …`,
  interrupted: "Die Aktualisierung wurde unterbrochen.",
  offline: (name) => `${name} ist nicht erreichbar.`,
  failed: (command) =>
    `Die ${
      {
        check: "Prüfung",
        update: "Aktualisierung",
        rollback: "Rückkehr",
        remove: "Entfernung",
        recover: "Wiederherstellung",
      }[command] ?? "Installation"
    } ist fehlgeschlagen.`,
  cancelled: (command) =>
    `Die ${
      { check: "Prüfung", update: "Aktualisierung", rollback: "Rückkehr", remove: "Entfernung" }[command] ??
      "Installation"
    } wurde abgebrochen.`,
  unreadable: "Die Aufzeichnung der letzten Aktualisierung ist nicht lesbar.",

  checked: (age) => `Zuletzt geprüft ${age}.`,
  neverChecked: "Noch nicht geprüft.",
  withdrawn: (pack) => `Der Hersteller hat Version ${pack.version} zurückgezogen; eine neuere ersetzt sie.`,
  staged: (release) => `Version ${release.version} geht zuerst an ${release.rollout} % der Geräte.`,
  rejected: {
    unhealthy: (rejected) => `Version ${rejected.version} wurde verworfen: Sie ist bei der Prüfung durchgefallen.`,
    rolled_back: (rejected) => `Version ${rejected.version} wurde verworfen: Jemand ist von ihr zurückgekehrt.`,
    other: (rejected) => `Version ${rejected.version} wurde verworfen: ${rejected.reason}.`,
  },
  soon: "Es wird bald installiert.",
  latest: (time) => `Spätestens ${time}.`,
  supported: (day) => `Unterstützt bis ${day}.`,
  supportEnded: (day) => `Die Unterstützung endete am ${day}: Sicherheitslücken bleiben vielleicht offen.`,
  recovery: "Die Wiederherstellung holt das alte Paket zurück, wo das neue fehlt, und räumt auf.",
  stays: (pack) =>
    pack === null ? "Kein Codec-Paket ist installiert." : `Version ${pack.version} bleibt installiert.`,
  until: (pack) => `Version ${pack.version} bleibt in Gebrauch, bis die neue an ihrem Platz ist.`,
  age: (age) => `Was Sie sehen, ist von ${age}. Neuer Versuch …`,
  refused: (cause) => `Nicht ausgeführt. ${cause}`,
  notSent: "Das konnte nicht gesendet werden. Ist das Gerät erreichbar?",
  wrongToken: "Das ist nicht der Schlüssel der Seite.",

  tile: {
    none: "Keines",
    unknown: "unbekannt",
    installed: "Installiert",
    since: (date) => `seit ${date}`,
    offered: "Verfügbar",
    coming: "Kommt",
    failed: "Nicht installiert",
  },
  codec: {
    used: (applications) => `für ${applications.join(", ")}`,
    missing: (applications) => (applications.length > 0 ? `fehlt, für ${applications.join(", ")}` : "fehlt"),
  },

  acts: {
    install: "Installieren",
    check: "Prüfen",
    update: "Aktualisieren",
    retry: "Noch einmal",
    recover: "Wiederherstellen",
    unlock: "Entsperren",
    reinstall: "Noch einmal installieren",
    rollback: "Zur vorigen Version zurück",
    remove: "Entfernen",
    lock: "Schlüssel vergessen",
    doctor: "Diagnose starten",
    cancel: "Abbrechen",
    all: (count) => `Alle ${count} zeigen`,
  },
  running: {
    check: "Wird geprüft …",
    doctor: "Diagnose läuft …",
    rollback: "Es geht zurück …",
    remove: "Wird entfernt …",
    recover: "Wird wiederhergestellt …",
  },
  starting: "Beginnt …",
  confirm: {
    remove: (pack, applications) =>
      `Version ${pack.version} entfernen? ${
        applications.length > 0
          ? `Diese Anwendungen spielen dann weniger ab: ${applications.join(", ")}.`
          : "Keine Anwendung braucht sie."
      }`,
    reinstall: (pack) => `Version ${pack.version} noch einmal laden und installieren?`,
    rollback: (pack, _, previous) =>
      `Von Version ${pack.version} zu Version ${previous} zurückkehren? Version ${pack.version} wird dann nicht wieder installiert, eine neuere schon.`,
  },
  ends: {
    new_pack: "Geprüft: Ein neues Codec-Paket ist verfügbar.",
    nothing_new: "Geprüft: Es gibt nichts Neues.",
    waits: "Das neue Codec-Paket wartet.",
    downloaded: "Heruntergeladen.",
    rejected: "Geprüft: Das angebotene Paket wurde auf diesem Gerät verworfen.",
    nothing_to_do: "Es ist nichts zu tun.",
    no_address: "Kein Server ist eingestellt.",
    done: "Fertig.",
  },
  ended: (exit) => `Beendet mit Status ${exit}.`,

  stage: {
    download: "Laden",
    aside: "Altes Paket beiseitelegen",
    unpack: "Neues Paket einsetzen",
    finish: "Anwendungen benachrichtigen",
  },
  waiting: "Warten auf den Server …",
  steps: {
    pre_uninstall: "Anwendungen erfahren, dass das alte Paket geht",
    uninstall: "Das alte Paket wird beiseitegelegt",
    post_uninstall: "Das alte Paket ist aus dem Weg",
    pre_install: "Anwendungen erfahren, dass das neue Paket kommt",
    install: "Das neue Paket wird entpackt und eingesetzt",
    post_install: "Das neue Paket ist an seinem Platz",
  },
  bytes: (now, total) => (total === null ? now : `${now} von ${total}`),
  rate: (size) => `${size}/s`,
  left: (duration) => `noch ${duration}`,

  done: {
    check: (entry) => `${version(entry.to)} gefunden`,
    download: (entry) => `${version(entry.to)} geladen`,
    install: (entry) => `${version(entry.to)} installiert`,
    update: (entry) =>
      entry.from === null ? `${version(entry.to)} installiert` : `Auf ${version(entry.to)} aktualisiert`,
    rollback: (entry) => `Zurück zu ${version(entry.to)}`,
    remove: (entry) => `${version(entry.from)} entfernt`,
    hold: () => "Updates angehalten",
    unhold: () => "Anhalten beendet",
    recover: () => "Wiederhergestellt",
  },
  waits: "Wartet auf die Installation",
  nothing: "Geprüft, nichts Neues",
  failedTo: {
    check: "Prüfung fehlgeschlagen",
    download: "Laden fehlgeschlagen",
    install: "Installation fehlgeschlagen",
    update: "Aktualisierung fehlgeschlagen",
    remove: "Entfernung fehlgeschlagen",
    rollback: "Rückkehr fehlgeschlagen",
    recover: "Wiederherstellung fehlgeschlagen",
  },
  cancelledTo: {
    check: "Prüfung abgebrochen",
    download: "Laden abgebrochen",
    install: "Installation abgebrochen",
    update: "Aktualisierung abgebrochen",
    remove: "Entfernung abgebrochen",
    rollback: "Rückkehr abgebrochen",
  },
  times: (count) => `${count}×`,
  entry: { before: "Vorher", after: "Nachher", took: "Dauer", exit: "Exit-Status", code: "Grund", at: "Beendet" },
  noPack: "kein Paket",
  day: (date, done, failed) =>
    `${date}: ${done + failed === 0 ? "nichts" : `${done} erledigt, ${failed} fehlgeschlagen`}`,
  strip: (days, failed) => `Die letzten ${days} Tage: ${failed === 0 ? "kein Fehler" : `Fehler an ${failed} davon`}.`,
  legend: { days: "Die letzten 90 Tage:", none: "nichts", done: "erledigt", failed: "fehlgeschlagen" },

  notDiagnosed: "Prüft Einstellungen, Rechte, Schlüsselbund, Plugins, Server und freien Platz. Sie ändert nichts.",
  well: (age) => `Kein Fehler gefunden, ${age}.`,
  found: (age) => `Gefunden ${age}:`,
  problems: "Was nicht lesbar war",

  server: (user, isHeld) =>
    `Ausgeliefert vom Konto ${user} an ${isHeld ? "einem Port, den systemd dafür freihält" : "einem Port, den jeder hätte nehmen können"}.`,

  refusals: {
    not_installed: "Kein Codec-Paket ist installiert.",
    no_previous_pack: "Es gibt kein voriges Paket.",
    locked: "Ein anderes Programm sperrt den Zustand.",
    wrong_host: "Der Server kennt den Namen nicht, unter dem Sie ihn erreicht haben.",
    other_site: "Die Anfrage kam von einer anderen Website.",
  },

  reasons: {
    no_space: { cause: "Der Speicher ist voll.", remedy: "Schaffen Sie Platz und versuchen Sie es noch einmal." },
    disk_error: {
      cause: "Der Datenträger meldet einen Fehler.",
      remedy: "Prüfen Sie ihn und versuchen Sie es noch einmal.",
    },
    not_signed: { cause: "Das Paket ist nicht unterschrieben.", remedy: "Der Herausgeber muss es unterschreiben." },
    bad_signature: {
      cause: "Die Unterschrift des Pakets gilt nicht.",
      remedy: "Prüfen Sie die Uhr; sonst muss der Herausgeber es reparieren.",
    },
    manifest_too_old: {
      cause: "Das Paket hat eine ältere Form, als die Einstellungen zulassen.",
      remedy: "Der Herausgeber muss es neu erstellen.",
    },
    manifest_too_new: {
      cause: "Das Paket verlangt ein neueres Aktualisierungsprogramm.",
      remedy: "Aktualisieren Sie zuerst das System des Geräts.",
    },
    wrong_product: {
      cause: "Das Paket ist für ein anderes Produkt.",
      remedy: "Der Herausgeber muss ein anderes anbieten.",
    },
    info_mismatch: {
      cause: "Das Paket widerspricht seiner eigenen Unterschrift.",
      remedy: "Der Herausgeber muss es neu veröffentlichen.",
    },
    older_version: {
      cause: "Das Paket ist älter als das installierte.",
      remedy: "Es ist nichts zu tun: Ein älteres wird nicht von selbst installiert.",
    },
    below_minimum: {
      cause: "Das Paket ist älter, als der Herausgeber erlaubt.",
      remedy: "Es ist nichts zu tun: Ein solches wird nicht von selbst installiert.",
    },
    package_expired: { cause: "Das Paket ist abgelaufen.", remedy: "Der Herausgeber muss ein neueres anbieten." },
    clock_behind: {
      cause: "Die Uhr geht falsch; darum lässt sich die Unterschrift nicht prüfen.",
      remedy: "Stellen Sie die Uhr und versuchen Sie es noch einmal.",
    },
    keyring_unusable: {
      cause: "Der Schlüsselbund des Geräts ist nicht brauchbar; darum wird kein Paket angenommen.",
      remedy: "Starten Sie die Diagnose.",
    },
    bad_package: { cause: "Das Paket ist beschädigt.", remedy: "Der Herausgeber muss es neu veröffentlichen." },
    file_unusable: { cause: "Die Datei des Pakets ist nicht lesbar.", remedy: "Prüfen Sie den Stick." },
    wrong_pack: { cause: "Das Paket ist für ein anderes Gerät.", remedy: "Besorgen Sie das passende Paket." },
    not_as_offered: {
      cause: "Das Paket ist nicht das angebotene.",
      remedy: "Der Herausgeber muss das Angebot berichtigen.",
    },
    checksum_mismatch: { cause: "Das Paket ist nicht das angekündigte.", remedy: "Versuchen Sie es noch einmal." },
    no_network_module: {
      cause: "Das Netzmodul fehlt oder passt nicht.",
      remedy: "Installieren Sie die Pakete noch einmal.",
    },
    server_unreachable: {
      cause: "Der Server ist nicht erreichbar.",
      remedy: "Prüfen Sie das Netz und versuchen Sie es noch einmal.",
    },
    server_refused: { cause: "Der Server weist die Anfrage ab.", remedy: "Starten Sie die Diagnose." },
    bad_reply: { cause: "Die Antwort des Servers ist nicht brauchbar.", remedy: "Starten Sie die Diagnose." },
    download_failed: {
      cause: "Das Paket lässt sich nicht laden.",
      remedy: "Prüfen Sie das Netz und versuchen Sie es noch einmal.",
    },
    bad_setting: {
      cause: "Eine Einstellung ist unbrauchbar.",
      remedy: "Suchen Sie nach Fehlern: Ein Befund nennt sie.",
    },
    not_configured: {
      cause: "Die Adresse des Servers oder eine Angabe über das Gerät fehlt.",
      remedy: "Starten Sie die Diagnose.",
    },
    no_pack_offered: {
      cause: "Der Server bietet kein Paket für dieses Gerät an.",
      remedy: "Starten Sie die Diagnose.",
    },
    requirements_unreadable: {
      cause: "Die Liste der verlangten Codecs ist nicht lesbar.",
      remedy: "Starten Sie die Diagnose.",
    },
    install_failed: { cause: "Das Paket kam nicht an seinen Platz.", remedy: "Starten Sie die Diagnose." },
    unhealthy: {
      cause: "Das neue Paket hat die Prüfung nicht bestanden.",
      remedy: "Es wird nicht wieder installiert. Eine neuere Version wird es, sobald es sie gibt.",
    },
    rejected: { cause: "Diese Version wurde auf diesem Gerät verworfen.", remedy: "Warten Sie auf eine neuere." },
    withdrawn: {
      cause: "Der Hersteller hat diese Version zurückgezogen.",
      remedy: "Eine neuere wird später angeboten.",
    },
    record_unreadable: {
      cause: "Die Aufzeichnung ist beschädigt.",
      remedy: "Die Wiederherstellung repariert sie.",
      recover: true,
    },
    permission_denied: {
      cause: "Dazu fehlen dem Server dieser Seite die Rechte.",
      remedy: "Rufen Sie packctl als root auf.",
    },
    not_permitted: { cause: "Der aufgezeichnete Status erlaubt es jetzt nicht.", remedy: "Prüfen Sie zuerst." },
    interrupted: {
      cause: "Eine frühere Aktualisierung wurde unterbrochen.",
      remedy: "Die Wiederherstellung bringt das in Ordnung.",
      recover: true,
    },
    not_confirmed: { cause: "Eine Anwendung braucht einen Codec des Pakets.", remedy: "Bestätigen Sie das Entfernen." },
    cancelled: { cause: "Es wurde abgebrochen.", remedy: "Versuchen Sie es noch einmal." },
    held: { cause: "Aktualisierungen sind angehalten.", remedy: "„packctl unhold“ beendet das." },
    outside_window: {
      cause: "Installiert wird zu der Zeit, die eingestellt ist.",
      remedy: "Sie können jetzt installieren.",
    },
    in_use: { cause: "Ein Programm benutzt das installierte Paket.", remedy: "Sie können jetzt installieren." },
    not_in_rollout: {
      cause: "Der Hersteller bietet es diesem Gerät noch nicht an.",
      remedy: "Sie können jetzt installieren.",
    },
    waits_for_person: { cause: "Die Einstellungen überlassen es Ihnen.", remedy: "Sie können jetzt installieren." },
    package_refused: {
      cause: "Sein Paket wurde abgelehnt. Es wird neu geladen, sobald der Hersteller das Angebot ändert.",
      remedy: "Sie können es jetzt noch einmal versuchen.",
    },
    busy: { cause: "Ein anderes Programm arbeitet.", remedy: "Versuchen Sie es danach noch einmal." },
  },
};
