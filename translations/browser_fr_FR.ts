<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr_FR">
<context>
    <name>ExitPasswordDialog</name>
    <message>
        <source>Password Required</source>
        <translation>Mot de passe requis</translation>
    </message>
    <message>
        <source>Administrator password:</source>
        <translation>Mot de passe administrateur :</translation>
    </message>
</context>
<context>
    <name>PlaylistParser</name>
    <message>
        <source>Network unreachable</source>
        <translation>Réseau inaccessible</translation>
    </message>
    <message>
        <source>Vorsane Kiosk is Offline.
Please select local playlist option or connect the system to a network.</source>
        <translation>Vorsane Kiosk est hors ligne.
Veuillez choisir l’option de liste de lecture locale ou connecter le système à un réseau.</translation>
    </message>
</context>
<context>
    <name>Webpage</name>
    <message>
        <source>Network error: please make sure you are correctly connected to internet.</source>
        <translation>Erreur réseau : vérifiez que vous êtes bien connecté à Internet.</translation>
    </message>
</context>
</TS>
